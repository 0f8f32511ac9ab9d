// Text that a person's terminal may be given, whatever it is made of.
#pragma once

#include <string>
#include <string_view>

namespace trabex {

// `text` as UTF-8 of visible characters (base/visible_text.h): the bytes of others, and those that are no
// UTF-8, become "\xHH".
std::string Printable(std::string_view text);

}  // namespace trabex
