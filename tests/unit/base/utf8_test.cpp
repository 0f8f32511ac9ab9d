#include "base/utf8.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace trabex {
namespace {

// By the table of RFC 3629, section 3, with no regard to which codes are allowed.
std::string Encode(std::uint32_t code, int size) {
  std::string text;
  for (int rest = size - 1; rest > 0; --rest) {
    text.insert(text.begin(), static_cast<char>(0x80 | (code & 0x3F)));
    code >>= 6;
  }
  const unsigned lead = size == 1 ? 0 : size == 2 ? 0xC0 : size == 3 ? 0xE0 : 0xF0;
  return static_cast<char>(lead | code) + text;
}

TEST(Utf8, EveryCodePointIsReadFromItsShortestFormOnly) {
  for (std::uint32_t code = 0; code <= 0x1FFFFF; ++code) {
    const int shortest = code < 0x80 ? 1 : code < 0x800 ? 2 : code < 0x10000 ? 3 : 4;
    const bool allowed = code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF);
    for (int size = shortest; size <= 4; ++size) {
      const Utf8Character read = FirstUtf8Character(Encode(code, size) + "x");
      const bool is_character = allowed && size == shortest;
      ASSERT_EQ(read.size, is_character ? static_cast<std::size_t>(size) : 0U) << code << " in " << size;
      if (is_character) {
        ASSERT_EQ(std::uint32_t{read.code}, code);
      }
    }
  }
}

TEST(Utf8, WhatIsCutOffOrContinuedByOtherBytesIsNoCharacter) {
  for (const char* whole : {"\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x93\xA7"}) {
    const std::string text = whole;
    for (std::size_t size = 1; size < text.size(); ++size) {
      EXPECT_EQ(FirstUtf8Character(text.substr(0, size)).size, 0U) << text;
      for (const char other : {'x', '\0', '\x7F', '\xC0', '\xFF'}) {
        std::string changed = text;
        changed[size] = other;
        EXPECT_EQ(FirstUtf8Character(changed).size, 0U) << changed;
      }
    }
  }
  for (int byte = 0x80; byte < 0x100; ++byte) {
    EXPECT_EQ(FirstUtf8Character(std::string(1, static_cast<char>(byte))).size, 0U) << byte;
    if (byte < 0xC0 || byte > 0xF7) {
      EXPECT_EQ(FirstUtf8Character(static_cast<char>(byte) + std::string(5, '\x80')).size, 0U) << byte;
    }
  }
  EXPECT_EQ(FirstUtf8Character("").size, 0U);
}

}  // namespace
}  // namespace trabex
