// Text of the program as a window shows it.
#pragma once

#include <string>
#include <string_view>

namespace trabex {

// UTF-8 as UTF-16. A character that is not visible (base/visible_text.h) becomes "?", a byte that belongs to no
// character U+FFFD.
std::wstring ShownText(std::string_view text);

}  // namespace trabex
