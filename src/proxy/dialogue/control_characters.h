// Control characters in what a peer sends. They mean more than text to some readers: to a terminal that
// shows the log, to a server that takes one for a line end or a blank.
#pragma once

#include <cstddef>
#include <string_view>

namespace trabex {

// The length of the control character that `text` (not empty) begins with, 0 when it is another character: 1
// for the bytes below 32 and DEL, 2 for U+0080 to U+009F in UTF-8 (U+0085 ends a line, U+009B begins a
// terminal's command as ESC and "[" do).
std::size_t ControlSize(std::string_view text);

// Whether `text` holds any; a tab does not count.
bool HoldsControl(std::string_view text);

}  // namespace trabex
