#include "script/escapes.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace trabex::script {
namespace {

TEST(Escapes, StandForBytes) {
  const struct {
    const char* text;
    std::string bytes;
  } rows[] = {
      {"", ""},
      {"plain {%macro%} {} {x*y} text*", "plain {%macro%} {} {x*y} text*"},
      {R"(\r\n\t\\)", "\r\n\t\\"},
      {R"(a\0b)", std::string("a\0b", 3)},
      {R"(\x41\x4a\x4A\x00\xfF)", std::string("AJJ\0\xff", 5)},
      {R"(\x414)", "A4"},
      {R"(\*\{3*x})", "*{3*x}"},
      {"<{3*ab}>", "<ababab>"},
      {R"({2*\r\n})", "\r\n\r\n"},
      {"{0*x}", ""},
      {"{2*{}}", "{{}"},
  };
  for (const auto& row : rows) EXPECT_EQ(Unescape(row.text), row.bytes) << row.text;
}

TEST(Escapes, ThatAreNoneAreRefused) {
  for (const char* text : {R"(\)", R"(a\q)", R"(\x4)", R"(\x4g)", "{3*x", "{999999999*x}", R"({2*\q})"}) {
    EXPECT_THROW(Decode(text), std::invalid_argument) << text;
  }
  for (const char* text : {R"(a\<b)", R"(a\>b)", R"(a\>b\<c)", R"(\<a\>\<b\>)", R"({2*\|})"}) {
    EXPECT_THROW(Decode(text), std::invalid_argument) << text;
  }
  for (const char* text : {R"(a\|b)", R"(\<a\>)"})
    EXPECT_THROW(Unescape(text), std::invalid_argument) << text;
}

TEST(Escapes, PlacesAreThoseOfTheBytes) {
  const Decoded decoded = Decode(R"(\r*\*\|{2*ab}\<\n*\>x\|)");
  EXPECT_EQ(decoded.bytes, "\r**abab\n*x");
  EXPECT_EQ(decoded.stars, (std::vector<std::size_t>{1, 8}));
  EXPECT_EQ(decoded.segments, (std::vector<std::size_t>{3, 10}));
  ASSERT_TRUE(decoded.marks.has_value());
  EXPECT_EQ(*decoded.marks, (std::pair<std::size_t, std::size_t>{7, 9}));
  EXPECT_FALSE(Decode("none").marks.has_value());
}

TEST(Escapes, AreReadBackAsTheyAreWritten) {
  std::string every;
  for (int byte = 0; byte < 256; ++byte) every += static_cast<char>(byte);
  const std::string text = Escape(every);
  EXPECT_EQ(text.find_first_of(std::string("\r\n\t\0\x7f\xff", 6)), std::string::npos);
  EXPECT_EQ(Unescape(text), every);
  EXPECT_EQ(Escape("a\r\n\t\\\x01\xe9"), R"(a\r\n\t\\\x01\xE9)");
}

}  // namespace
}  // namespace trabex::script
