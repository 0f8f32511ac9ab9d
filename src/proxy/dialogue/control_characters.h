// Control characters in what a peer sends. They mean more than text to some readers: to a terminal that
// shows the log, to a server that takes one for a line end or a blank.
#pragma once

#include <string_view>

namespace trabex {

// Whether `text` holds a byte below 32 other than a tab, DEL, or one of U+0080 to U+009F in UTF-8 (U+0085 ends
// a line, U+009B begins a terminal's command as ESC and "[" do).
bool HoldsControl(std::string_view text);

}  // namespace trabex
