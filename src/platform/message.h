// What the operator is told outside of the log: on the standard streams, or in a box where these reach nobody.
#pragma once

#include <memory>
#include <ostream>
#include <string_view>

namespace trabex {

// Tells the operator of a running program `text`, whole lines. Never waits: a reader that does not read must not hold
// up the mail. Writes to standard error as far as that takes it at once; on Windows only when that is a file or a
// pipe, otherwise a message box of a thread of its own shows the text, or the next one once it is closed.
void ShowMessage(std::string_view text);

// Whether standard error is a terminal, on which a message may stand in the middle of what else is shown.
bool MessagesGoToTerminal();

// The streams in which a command line is answered that asks for something else than a start, or is refused.
class CommandStreams {
 public:
  // Those of the process: standard output and standard error.
  CommandStreams();
  ~CommandStreams();
  CommandStreams(const CommandStreams&) = delete;
  CommandStreams& operator=(const CommandStreams&) = delete;

  std::ostream& Out();
  std::ostream& Err();
  // To be called when all is said. On Linux all of it has arrived then. On Windows what was written is shown in one
  // message box, unless both streams are files or pipes; returns when that box is closed. What a start writes is
  // not shown so: the log has it.
  void Show();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace trabex
