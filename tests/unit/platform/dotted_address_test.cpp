#include "platform/dotted_address.h"

#include <gtest/gtest.h>

namespace trabex {
namespace {

TEST(DottedAddress, FourDecimalPartsAreAnAddress) {
  const struct {
    const char* text;
    std::uint32_t address;
  } cases[] = {
      {"0.0.0.0", 0},
      {"127.0.0.1", 0x7F000001},
      {"192.0.2.255", 0xC00002FF},
      {"255.255.255.255", 0xFFFFFFFF},
      {"010.001.000.009", 0x0A010009},  // decimal, whatever the leading zero
  };
  for (const auto& c : cases) EXPECT_EQ(ParseDottedAddress(c.text), c.address) << c.text;
}

TEST(DottedAddress, EverythingElseIsAName) {
  for (const char* text :
       {"",         "1",         "127.1",      "1.2.3",      "1.2.3.4.5",        "1.2.3.4.",  ".1.2.3.4",
        "1..2.3",   "1.2.3.256", "1.2.3.0001", "0x7f.0.0.1", "0x7f.1",           " 1.2.3.4",  "1.2.3.4 ",
        "1.2.3.-4", "+1.2.3.4",  "1.2.3.4a",   "a.b.c.d",    "1.2.3.4294967296", "localhost", "::1"}) {
    EXPECT_EQ(ParseDottedAddress(text), std::nullopt) << text;
  }
  EXPECT_EQ(ParseDottedAddress(std::string_view("1.2.3.4\0", 8)), std::nullopt);
}

TEST(DottedAddress, IsWrittenWithoutPadding) {
  EXPECT_EQ(DottedAddress(0x7F000001), "127.0.0.1");
  EXPECT_EQ(DottedAddress(0), "0.0.0.0");
  EXPECT_EQ(DottedAddress(0xFFFFFFFF), "255.255.255.255");
}

}  // namespace
}  // namespace trabex
