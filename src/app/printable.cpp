#include "app/printable.h"

#include <cstddef>

#include "base/text.h"

namespace trabex {

namespace {

// How many bytes of `text` (not empty) are one character that can be shown; 0 when the first one is none.
std::size_t CharacterLength(std::string_view text) {
  const auto first = static_cast<unsigned char>(text[0]);
  if (first < 0x80) return IsControl(text[0]) ? 0 : 1;
  const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || text.size() < length) return 0;
  unsigned long code = first & (0x7FU >> length);
  for (const char c : text.substr(1, length - 1)) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte & 0xC0) != 0x80) return 0;
    code = code << 6 | (byte & 0x3FU);
  }
  // Longer than needed, half of a UTF-16 pair, beyond Unicode, or a control character above ASCII.
  const bool bad = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000) ||
                   (code >= 0xD800 && code <= 0xDFFF) || code > 0x10FFFF || code < 0xA0;
  return bad ? 0 : length;
}

}  // namespace

std::string Printable(std::string_view text) {
  static constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    std::size_t length = CharacterLength(text);
    if (length != 0) {
      result += text.substr(0, length);
    } else {
      length = 1;
      const auto byte = static_cast<unsigned char>(text[0]);
      result.append("\\x") += kDigits[byte >> 4];
      result += kDigits[byte & 0xF];
    }
    text.remove_prefix(length);
  }
  return result;
}

}  // namespace trabex
