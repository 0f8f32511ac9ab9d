// What a terminal was like before a view was put on it.
#pragma once

#include <termios.h>

#include <string>

namespace trabex {

// Empty when the kind of terminal that TERM names can show a view; otherwise what is wrong with it.
std::string WhyTerminalTypeUnusable();

// Puts the controlling terminal back when the process that drew on it can no longer do so itself. Never waits
// for the terminal.
class TerminalState {
 public:
  // Notes the state as it is now. Raises 57 "Device I/O error" when there is no controlling terminal.
  TerminalState();
  ~TerminalState();
  TerminalState(const TerminalState&) = delete;
  TerminalState& operator=(const TerminalState&) = delete;

  // Does nothing while the program is in the background: the terminal is somebody else's then.
  void Restore() const;

 private:
  int terminal_ = -1;
  termios modes_{};
  std::string leave_;  // the terminal's commands for: normal screen, cursor and attributes
};

}  // namespace trabex
