// The main window's picture on the terminal: status line, header, one row per connection.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "platform/event_loop.h"

namespace trabex {

// What the view shows. It pulls: a text is asked for only while it is visible.
class ViewContent {
 public:
  virtual ~ViewContent() = default;
  virtual std::string Status() const = 0;
  virtual std::string Version() const = 0;
  virtual std::string Header() const = 0;
  virtual std::size_t RowCount() const = 0;
  // Row `index` (0 is the first) as it shall be shown; UTF-8, characters that are not visible
  // (base/visible_text.h) are shown as "?".
  virtual std::string RowText(std::size_t index) const = 0;
};

// The terminal never holds up the loop: what draws is a process of its own, and a terminal that does not read
// costs frames.
class TerminalView {
 public:
  // Restores the terminal; waits half a second at most for one that does not read.
  virtual ~TerminalView() = default;
  // Shows the content anew as soon as the terminal can take it; cheap to call often.
  virtual void Refresh() = 0;
};

// What the user, or the terminal, does to the view. A handler may destroy the view; an empty one is skipped.
struct TerminalViewEvents {
  std::function<void()> closed;             // the user closed the window
  std::function<void(bool folded)> folded;  // the user folded it to the status line, or unfolded it
  // Nothing is shown any more: what draws has gone, or has left the terminal to somebody else.
  std::function<void()> lost;
  // Likewise, because the terminal itself has gone (a closed ssh).
  std::function<void()> hung_up;
};

// What draws is a process of this same executable. To be called first in main: in that process it draws and
// does not return.
void DrawIfStartedToDraw(int argc, char* const* argv);

// Whether there is anybody to whom a view or a reason for none could be shown.
bool StandardOutputIsTerminal();

// The reason that there is no view, for people; empty when a view is possible now: standard output is a
// terminal of a known kind and the program runs in the foreground.
std::string WhyNoTerminalView();

// Both references outlive the view; events come from the loop. While it is open the program cannot be stopped
// from the terminal (Ctrl-Z); that would stop the mail. One view at a time. Raises 57 "Device I/O error" when
// the terminal or the drawing process cannot be had.
std::unique_ptr<TerminalView> OpenTerminalView(EventLoop& loop, const ViewContent& content, bool folded,
                                               TerminalViewEvents events);

}  // namespace trabex
