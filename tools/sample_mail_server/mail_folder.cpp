#include "mail_folder.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>

#include "base/text.h"

namespace sample {
namespace {

// Writes all of `bytes`; false when that failed.
bool WriteAll(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(file, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

// A value of the envelope must not end its line.
void AppendLine(std::string& text, std::string_view name, std::string_view value) {
  text.append(name).append(": ");
  std::transform(value.begin(), value.end(), std::back_inserter(text),
                 [](char c) { return trabex::IsControl(c) ? '?' : c; });
  text.push_back('\n');
}

std::string EnvelopeText(const Envelope& envelope) {
  std::string text;
  AppendLine(text, "client", envelope.client);
  AppendLine(text, "helo", envelope.helo);
  AppendLine(text, "mail", envelope.sender);
  for (const std::string& recipient : envelope.recipients) AppendLine(text, "rcpt", recipient);
  return text;
}

}  // namespace

MailFolder::MailFolder(std::string path) : path_(std::move(path)) {
  std::filesystem::create_directories(path_);
  for (const auto& entry : std::filesystem::directory_iterator(path_)) {
    const std::string name = entry.path().stem().string();
    long number = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    if (error == std::errc{} && end == name.data() + name.size()) {
      next_number_ = std::max(next_number_, number + 1);
    }
  }
}

std::string MailFolder::NewPartName() {
  return path_ + "/arriving-" + std::to_string(::getpid()) + "-" + std::to_string(next_part_++) + ".part";
}

long MailFolder::Store(const std::string& part, const Envelope& envelope) {
  std::string base;
  int file = -1;
  // Creating the envelope exclusively takes the number, should a second server share the folder.
  do {
    base = path_ + "/" + std::to_string(next_number_++);
    file = ::open((base + ".envelope").c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  } while (file < 0 && errno == EEXIST);
  if (file < 0) return 0;
  const bool written = WriteAll(file, EnvelopeText(envelope));
  const bool closed = ::close(file) == 0;
  if (!written || !closed || std::rename(part.c_str(), (base + ".eml").c_str()) != 0) {
    ::unlink((base + ".envelope").c_str());
    return 0;
  }
  return next_number_ - 1;
}

ArrivingMail::ArrivingMail(MailFolder& folder) : folder_(folder), part_(folder.NewPartName()) {
  file_ = ::open(part_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  failed_ = file_ < 0;
}

ArrivingMail::~ArrivingMail() {
  if (file_ < 0) return;
  ::close(file_);
  ::unlink(part_.c_str());
}

void ArrivingMail::Append(std::string_view bytes) {
  size_ += bytes.size();
  if (!failed_) failed_ = !WriteAll(file_, bytes);
}

long ArrivingMail::Store(const Envelope& envelope) {
  if (failed_) return 0;
  const long number = folder_.Store(part_, envelope);
  if (number == 0) return 0;
  ::close(file_);
  file_ = -1;
  return number;
}

}  // namespace sample
