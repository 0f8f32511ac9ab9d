// The process that draws the main window on the terminal.
#pragma once

namespace trabex {

// To be called in a child that was just forked with all signals blocked. Makes it a fresh process of the same
// executable that draws on the controlling terminal what arrives on `socket` (view_wire.h), until the
// other end is closed or the terminal goes, and then restores the terminal. Fresh, because a mere fork would
// keep a copy of all memory that the program changes from now on. Closes every other descriptor.
[[noreturn]] void BecomeTerminalRenderer(int socket);

}  // namespace trabex
