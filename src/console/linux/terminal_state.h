// What a terminal was like before a view was put on it.
#pragma once

#include <termios.h>

#include <optional>
#include <string>

namespace trabex {

// Empty when the kind of terminal that TERM names can show a view; otherwise what is wrong with it.
std::string WhyTerminalTypeUnusable();

// Puts the controlling terminal back. Never waits for the terminal.
class TerminalState {
 public:
  // Notes the state as it is now. Raises 57 "Device I/O error" when there is no controlling terminal.
  TerminalState();
  ~TerminalState();
  TerminalState(const TerminalState&) = delete;
  TerminalState& operator=(const TerminalState&) = delete;

  // Notes the modes in which the view draws.
  void NoteDrawing();
  // Whether the modes are still those. Others were set by another process, such as a shell that has taken the
  // terminal back.
  bool IsDrawing() const;
  // Whether the terminal itself has gone: its line was hung up.
  bool HungUp() const;
  // Leaves the full screen and puts back the modes, unless another process has set others.
  void Restore() const;

 private:
  int terminal_ = -1;
  termios modes_{};
  std::optional<termios> drawing_modes_;
  std::string leave_;  // the terminal's commands for: normal screen, cursor and attributes
};

}  // namespace trabex
