// The log as every library sees it: an interface that takes lines.
#pragma once

#include <string_view>

#include "base/error.h"

namespace trabex {

// Takes finished lines. The implementation adds the time stamp and the line end, drops the line when logging
// is off, and never fails towards the caller.
class Log {
 public:
  virtual ~Log() = default;

  // Writes one line. `message` may hold any bytes; they are written as they are, line breaks included.
  virtual void LogLine(std::string_view message) = 0;

  // Writes "Error <number> in <source>. <description>".
  virtual void LogError(int number, std::string_view description, std::string_view source);
  void LogError(const Error& error) { LogError(error.Number(), error.Description(), error.Source()); }

  // The same for a line that says that something is not as the settings want it. Whoever runs the program is
  // told the line too, with `addition` behind it, which the log does not show.
  void LogProblem(std::string_view message, std::string_view addition = {}) {
    TakeProblem(message, addition);
  }
  void LogProblem(const Error& error);

 private:
  virtual void TakeProblem(std::string_view message, std::string_view /*addition*/) { LogLine(message); }
};

// Runs `action` as the body of an event handler: an Error that leaves it, or another standard exception, is
// written to `log` and goes no further. An exception that is no Error is logged as number 7, out of memory,
// whatever it was, with `source`, which names the handler.
template <class Action>
void RunLogged(Log& log, std::string_view source, Action&& action);

}  // namespace trabex

#include "base/log_inl.h"
