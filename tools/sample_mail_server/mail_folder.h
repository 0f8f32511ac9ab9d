// The folder in which the sample mail server keeps its mail: <n>.eml is the content of a message, byte for
// byte, and <n>.envelope beside it tells in lines "name: value" who sent it to whom. Numbers grow in the
// order of arrival. A message appears under its name when it is complete, and its envelope before it.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace sample {

// What the session knows of a message beside its content. Text from the client, as it was.
struct Envelope {
  std::string client;  // address and port
  std::string helo;
  std::string sender;
  std::vector<std::string> recipients;
};

class MailFolder {
 public:
  // Creates the folder when it is missing (its parents too) and goes on counting after the messages in it.
  // Throws std::system_error when it cannot be used.
  explicit MailFolder(std::string path);

  const std::string& Path() const { return path_; }

  // Moves the file `part` into place as the next message and returns its number, or 0 when that failed (the
  // part is still there then).
  long Store(const std::string& part, const Envelope& envelope);
  // A name for a message that is still arriving.
  std::string NewPartName();

 private:
  std::string path_;
  long next_number_ = 1;
  long next_part_ = 1;
};

// A message that is arriving: written to a file of its own as it comes, never kept in memory. What is not
// stored when the object goes is removed.
class ArrivingMail {
 public:
  explicit ArrivingMail(MailFolder& folder);
  ~ArrivingMail();
  ArrivingMail(const ArrivingMail&) = delete;
  ArrivingMail& operator=(const ArrivingMail&) = delete;

  // After a failed write nothing more is written, and Store() fails.
  void Append(std::string_view bytes);
  std::size_t Size() const { return size_; }
  // Returns the message's number, or 0 when it could not be stored.
  long Store(const Envelope& envelope);

 private:
  MailFolder& folder_;
  std::string part_;
  int file_ = -1;
  std::size_t size_ = 0;
  bool failed_ = false;
};

}  // namespace sample
