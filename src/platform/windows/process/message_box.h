// Boxes with a message for the user.
#pragma once

#include <string>
#include <string_view>

namespace trabex {

// What a box shows of `text`: without the program's name in front, which is the caption, without the last line end, and
// no more than a screen has room for.
std::string BoxText(std::string_view text);

// Shows a box with `text` and the information icon; returns when it is closed.
void ShowBox(std::string_view text);

// The same on a thread, without waiting. While one is open, what follows waits for the next.
void ShowBoxBeside(std::string_view text);

}  // namespace trabex
