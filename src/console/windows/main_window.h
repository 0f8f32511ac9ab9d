// The window itself, on a thread of its own, so that dragging it, its menu and whatever else holds its messages
// up never holds up the mail.
#pragma once

#include <memory>

#include "console/windows/window_link.h"

namespace trabex {

// The number of the program's icon among its resources.
inline constexpr int kIconResource = 1;

// Starts the thread: it makes the window, minimized if so wanted, and runs until the window has gone. All that
// it tells and is told goes through `link`, which it keeps. Returns whether there is a thread.
bool StartMainWindow(std::shared_ptr<WindowLink> link, bool minimized);

}  // namespace trabex
