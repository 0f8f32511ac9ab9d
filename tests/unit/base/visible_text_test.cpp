#include "base/visible_text.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "support/utf8.h"

namespace trabex {
namespace {

TEST(VisibleText, CharactersThatCommandOrMisleadAreNotVisible) {
  for (std::uint32_t code = 0; code <= 0x10FFFF; ++code) {
    if (code >= 0xD800 && code <= 0xDFFF) continue;
    const bool control = code < 0x20 || (code >= 0x7F && code <= 0x9F);
    const bool separator = code == 0x2028 || code == 0x2029;
    const bool direction = code == 0x061C || code == 0x200E || code == 0x200F ||
                           (code >= 0x202A && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
    const bool tag = code >= 0xE0000 && code <= 0xE007F;
    const std::string text = Utf8(code);
    const TextPiece piece = FirstPiece(text + "x");
    ASSERT_TRUE(piece.is_character) << code;
    ASSERT_EQ(std::uint32_t{piece.code}, code);
    ASSERT_EQ(piece.size, text.size()) << code;
    ASSERT_EQ(piece.visible, !control && !separator && !direction && !tag) << code;
  }
}

TEST(VisibleText, BytesThatAreNoCharacterComeOneByOne) {
  for (int byte = 0x80; byte < 0x100; ++byte) {
    for (const char* rest : {"", "x", "\xFF"}) {
      const TextPiece piece = FirstPiece(static_cast<char>(byte) + std::string(rest));
      EXPECT_FALSE(piece.is_character) << byte;
      EXPECT_EQ(piece.size, 1U) << byte;
      EXPECT_EQ(piece.visible, byte >= 0xA0) << byte;
    }
  }
}

TEST(VisibleText, HexIsOfEachByte) {
  std::string text = "a";
  AppendHex(text, std::string_view("\x00\x7F\x9B\xFF", 4));
  EXPECT_EQ(text, "a\\x00\\x7F\\x9B\\xFF");
}

}  // namespace
}  // namespace trabex
