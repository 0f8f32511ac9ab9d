// What passes on the control channel.
//
// A request is one line: its name and its arguments with a tab between them, in UTF-8, ended by LF. Inside of an
// argument "\\" stands for a backslash, "\t" for a tab and "\n" for a line feed. It has 64 KB at most.
//
// The answer is a sequence of parts, and then its end:
//   "T <length>" LF and so many bytes   text for standard output
//   "E <length>" LF and so many bytes   text for standard error
//   "X <status>" LF                     the end: the exit status, 0 to 255
// After that the instance hangs up. An answer without its end was cut off.
//   "S 1" LF                            a stream instead of an end: both sides say what the request is about
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/control_requests.h"

namespace trabex {

inline constexpr std::size_t kMaxRequestBytes = std::size_t{64} * 1024;  // with its LF

// The line of a request, with its LF; nothing when it would be too long or is no UTF-8.
std::optional<std::string> FormatRequest(const std::vector<std::string>& request);
// The request in a line without its LF; nothing when it is none.
std::optional<std::vector<std::string>> ParseRequest(std::string_view line);

// Appends the texts of `answer` to `bytes`, and with `is_last` the end with its status.
void AppendAnswer(const ControlAnswer& answer, bool is_last, std::string& bytes);

// Appends what comes before a stream.
void AppendStreamBegin(std::string& bytes);

// Takes an answer as it comes, in pieces of any size.
class AnswerReader {
 public:
  struct Sink {
    std::function<void(std::string_view)> text;
    std::function<void(std::string_view)> error;
  };
  enum class State { kMore, kComplete, kStream, kBroken };

  explicit AnswerReader(Sink sink) : sink_(std::move(sink)) {}

  // What stands behind the end is left out of account; broken stays broken.
  State Take(std::string_view bytes);
  // Once complete.
  int Status() const { return status_; }
  // In a stream, what has come of it.
  const std::string& Stream() const { return stream_; }

 private:
  void TakeHeader(std::string_view line);

  Sink sink_;
  State state_ = State::kMore;
  std::string header_;       // as far as it has come
  char kind_ = 0;            // of the part that is being read
  std::size_t missing_ = 0;  // bytes of it that are still to come
  int status_ = 0;
  std::string stream_;
};

}  // namespace trabex
