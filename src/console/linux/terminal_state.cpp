#define NCURSES_NOMACROS 1

#include "console/linux/terminal_state.h"

#include <curses.h>
#include <fcntl.h>
#include <term.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iterator>

#include "platform/device_error.h"

namespace trabex {

namespace {

// The terminal's description while it is needed; there is one in the whole process.
class TerminalType {
 public:
  TerminalType() { known_ = setupterm(nullptr, STDOUT_FILENO, &result_) == OK; }
  ~TerminalType() {
    if (known_) del_curterm(cur_term);
  }
  TerminalType(const TerminalType&) = delete;
  TerminalType& operator=(const TerminalType&) = delete;

  bool Known() const { return known_; }
  // Empty when the terminal has no such command. Without the pauses ("$<20>") that only old hardware needed.
  std::string Command(const char* name) const {
    const char* const text = known_ ? tigetstr(name) : nullptr;
    // tigetstr says "no such name" with an address that is none.
    if (text == nullptr || reinterpret_cast<std::intptr_t>(text) == -1) return {};
    std::string command(text);
    for (std::size_t begin = command.find("$<"); begin != std::string::npos; begin = command.find("$<")) {
      command.erase(begin, command.find('>', begin) - begin + 1);
    }
    return command;
  }

 private:
  int result_ = 0;
  bool known_ = false;
};

bool SameModes(const termios& a, const termios& b) {
  return a.c_iflag == b.c_iflag && a.c_oflag == b.c_oflag && a.c_cflag == b.c_cflag &&
         a.c_lflag == b.c_lflag && std::equal(std::begin(a.c_cc), std::end(a.c_cc), std::begin(b.c_cc));
}

}  // namespace

std::string WhyTerminalTypeUnusable() {
  const char* const name = std::getenv("TERM");
  if (name == nullptr || *name == '\0') return "The terminal type is not set (TERM).";
  const TerminalType type;
  if (!type.Known()) return "The terminal type \"" + std::string(name) + "\" is unknown.";
  if (type.Command("cup").empty()) {
    return "The terminal type \"" + std::string(name) + "\" has no full screen.";
  }
  return {};
}

TerminalState::TerminalState() : terminal_(open("/dev/tty", O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)) {
  if (terminal_ < 0 || tcgetattr(terminal_, &modes_) != 0) {
    if (terminal_ >= 0) close(terminal_);
    RaiseDeviceError("TerminalState.TerminalState");
  }
  const TerminalType type;
  for (const char* const command : {"rmkx", "sgr0", "rmcup", "cnorm"}) leave_ += type.Command(command);
}

TerminalState::~TerminalState() {
  close(terminal_);
}

void TerminalState::NoteDrawing() {
  termios modes{};
  if (tcgetattr(terminal_, &modes) == 0) drawing_modes_ = modes;
}

bool TerminalState::IsDrawing() const {
  // A renderer that died before its modes were noted has hardly changed them.
  if (!drawing_modes_) return tcgetpgrp(terminal_) == getpgrp();
  termios now{};
  return tcgetattr(terminal_, &now) == 0 && SameModes(now, *drawing_modes_);
}

bool TerminalState::HungUp() const {
  termios now{};
  return tcgetattr(terminal_, &now) != 0;
}

void TerminalState::Restore() const {
  if (IsDrawing()) tcsetattr(terminal_, TCSANOW, &modes_);
  // What the terminal does not take at once it would not take later either.
  [[maybe_unused]] const ssize_t written = write(terminal_, leave_.data(), leave_.size());
}

}  // namespace trabex
