// The process that draws the main window on the terminal.
#pragma once

namespace trabex {

// Draws on the controlling terminal what arrives on `socket` (terminal_wire.h) until the other end is closed,
// the user closes the window or the terminal goes; then restores the terminal and ends the process. Called in
// a child that was just forked with all signals blocked; closes every other descriptor.
[[noreturn]] void RunTerminalPainter(int socket, bool folded);

}  // namespace trabex
