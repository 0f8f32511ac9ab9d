// Draws screens on this process's terminal, which is its standard input and output, and takes keys from it. The only
// place that draws; it may be blocked in a write for as long as the terminal takes nothing.
#pragma once

#include <functional>

#include "console/screen.h"
#include "console/view_screen.h"

namespace trabex {

class TerminalDrawer {
 public:
  TerminalDrawer() = default;
  TerminalDrawer(const TerminalDrawer&) = delete;
  TerminalDrawer& operator=(const TerminalDrawer&) = delete;

  // Begins the full screen. False when the kind of terminal cannot be drawn on.
  bool Begin();
  // Ends it: the terminal is as it was. Only after Begin.
  void End();

  // The room that there is now.
  ViewerSize Size() const;
  // Draws what differs from the picture before; nothing is written where nothing does.
  void Draw(const Screen& screen);
  // Calls `take` for each key that waits. Returns whether the terminal's size has changed; then everything has to be
  // drawn anew. Never waits.
  bool TakeKeys(const std::function<void(Key)>& take);
  // After TakeKeys: whether the terminal has not gone, and still is this process's to read.
  bool TerminalIsOurs() const;

 private:
  void DrawPiece(int line, const ScreenPiece& piece) const;

  bool colours_ = false;
  bool plain_ = false;
  bool any_key_ = false;
};

}  // namespace trabex
