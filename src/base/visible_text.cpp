#include "base/visible_text.h"

#include <algorithm>
#include <iterator>

#include "base/utf8.h"

namespace trabex {

namespace {

struct CodeRange {
  char32_t first;
  char32_t last;
};

constexpr CodeRange kInvisible[] = {{0x00, 0x1F},     {0x7F, 0x9F},     {0x061C, 0x061C},  {0x200E, 0x200F},
                                    {0x2028, 0x202E}, {0x2066, 0x2069}, {0xE0000, 0xE007F}};

}  // namespace

bool IsVisible(char32_t code) {
  return std::none_of(std::begin(kInvisible), std::end(kInvisible),
                      [&](const CodeRange& range) { return code >= range.first && code <= range.last; });
}

TextPiece FirstPiece(std::string_view text) {
  const Utf8Character character = FirstUtf8Character(text);
  if (character.size > 0) return {character.size, character.code, true, IsVisible(character.code)};
  return {1, 0, false, IsVisible(static_cast<unsigned char>(text[0]))};
}

void AppendHex(std::string& text, std::string_view bytes) {
  static constexpr std::string_view kDigits = "0123456789ABCDEF";
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text.append("\\x") += kDigits[byte >> 4];
    text += kDigits[byte & 0xF];
  }
}

}  // namespace trabex
