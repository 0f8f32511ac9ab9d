#include "base/visible_text.h"

#include <gtest/gtest.h>

#include <string>

namespace trabex {
namespace {

TEST(ControlCharacters, AreOneByteOrTwo) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string text{static_cast<char>(byte), 'x'};
    const bool control = byte < 32 || byte == 127;
    EXPECT_EQ(HoldsControl("a" + text), control && byte != '\t') << byte;
    EXPECT_EQ(HoldsControl(std::string("a") + static_cast<char>(byte)), control && byte != '\t') << byte;
    const std::string pair{'\xC2', static_cast<char>(byte)};
    const bool is_control = control ? byte != '\t' : byte >= 0x80 && byte <= 0x9F;
    EXPECT_EQ(HoldsControl(pair), is_control) << byte;
  }
  EXPECT_FALSE(HoldsControl("\xC2"));
  EXPECT_FALSE(HoldsControl("\xE2\x80\x9B"));
  EXPECT_FALSE(HoldsControl(""));
  EXPECT_FALSE(HoldsControl("\t \t"));
  EXPECT_TRUE(HoldsControl("\t\n"));
}

}  // namespace
}  // namespace trabex
