#include "base/visible_text.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>

#include "base/text.h"
#include "base/utf8.h"

namespace trabex {

namespace {

struct CodeRange {
  char32_t first;
  char32_t last;
};

constexpr CodeRange kInvisible[] = {{0x00, 0x1F},     {0x7F, 0x9F},     {0x061C, 0x061C},  {0x200E, 0x200F},
                                    {0x2028, 0x202E}, {0x2066, 0x2069}, {0xE0000, 0xE007F}};

constexpr std::string_view kLineBreakSign = "\xC2\xB6";

// Most text is this.
bool IsPlain(char c) {
  return c >= ' ' && c <= '~';
}

// The same of eight at once. A borrow or a carry comes only out of a byte that is not plain itself.
bool ArePlain(const char* eight) {
  constexpr std::uint64_t kEach = 0x0101010101010101;
  std::uint64_t bytes = 0;
  std::memcpy(&bytes, eight, sizeof bytes);
  const std::uint64_t below_blank = bytes - kEach * ' ';
  const std::uint64_t from_del = bytes + kEach;
  return ((bytes | below_blank | from_del) & (kEach * 0x80)) == 0;
}

std::size_t PlainSize(std::string_view text) {
  std::size_t size = 0;
  while (text.size() - size >= 8 && ArePlain(text.data() + size)) size += 8;
  while (size < text.size() && IsPlain(text[size])) ++size;
  return size;
}

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

bool HoldsControl(std::string_view text) {
  char before = 0;
  for (const char byte : text) {
    if (IsControl(byte) && byte != '\t') return true;
    if (before == '\xC2' && (static_cast<unsigned char>(byte) & 0xE0) == 0x80) return true;
    before = byte;
  }
  return false;
}

void AppendHex(std::string& text, std::string_view bytes) {
  static constexpr std::string_view kDigits = "0123456789ABCDEF";
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text.append("\\x") += kDigits[byte >> 4];
    text += kDigits[byte & 0xF];
  }
}

void AppendVisible(std::string& line, std::string_view text) {
  for (;;) {
    const std::size_t plain = PlainSize(text);
    line.append(text.substr(0, plain));
    text.remove_prefix(plain);
    if (text.empty()) return;
    if (text.starts_with(kCrLf)) {
      line.append(kLineBreakSign);
      text.remove_prefix(kCrLf.size());
      continue;
    }
    const TextPiece piece = FirstPiece(text);
    if (piece.visible) {
      line.append(text.substr(0, piece.size));
    } else {
      AppendHex(line, text.substr(0, piece.size));
    }
    text.remove_prefix(piece.size);
  }
}

}  // namespace trabex
