#include "base/utf8.h"

namespace trabex {

namespace {

// How the characters of one size begin. What follows the lead byte are bytes 80 to BF with six bits each.
struct Form {
  unsigned char lead_mask;
  unsigned char lead;
  std::size_t size;
  char32_t min;  // a smaller code would have fitted into fewer bytes
};

constexpr Form kForms[] = {
    {0x80, 0x00, 1, 0}, {0xE0, 0xC0, 2, 0x80}, {0xF0, 0xE0, 3, 0x800}, {0xF8, 0xF0, 4, 0x10000}};

constexpr char32_t kMaxCode = 0x10FFFF;

bool IsSurrogate(char32_t code) {
  return code >= 0xD800 && code <= 0xDFFF;
}

}  // namespace

Utf8Character FirstUtf8Character(std::string_view text) {
  if (text.empty()) return {};
  const auto lead = static_cast<unsigned char>(text[0]);
  for (const Form& form : kForms) {
    if ((lead & form.lead_mask) != form.lead) continue;
    if (text.size() < form.size) return {};
    char32_t code = lead & static_cast<unsigned char>(~form.lead_mask);
    for (const char c : text.substr(1, form.size - 1)) {
      const auto byte = static_cast<unsigned char>(c);
      if ((byte & 0xC0) != 0x80) return {};
      code = code << 6 | (byte & 0x3F);
    }
    if (code < form.min || code > kMaxCode || IsSurrogate(code)) return {};
    return {code, form.size};
  }
  return {};
}

}  // namespace trabex
