// UTF-8 as RFC 3629 has it.
#pragma once

#include <cstddef>
#include <string_view>

namespace trabex {

struct Utf8Character {
  char32_t code = 0;     // the Unicode code point
  std::size_t size = 0;  // in bytes, 1 to 4; 0: no character, and the code says nothing
};

// The character that `text` begins with. None where the bytes are not well-formed (RFC 3629, section 4): cut
// off, longer than needed, half of a UTF-16 pair, beyond U+10FFFF, or a continuation of nothing; nor in
// an empty text. Controls and unassigned code points are characters.
Utf8Character FirstUtf8Character(std::string_view text);

}  // namespace trabex
