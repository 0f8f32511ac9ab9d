#include "proxy/session_log.h"

#include <gtest/gtest.h>

#include <string>

#include "unit/proxy/dialogue.h"

namespace trabex {
namespace {

TEST(SessionLog, TheLineHasItsFieldsInTheirWidths) {
  const struct {
    const char* tag;
    std::int32_t handle;
    const char* address;
    const char* text;
    const char* line;
  } rows[] = {
      {"S: ", 7, "127.0.0.1", "> NOOP", "S: {     7} [      127.0.0.1] > NOOP"},
      {"R: ", 123456, "192.168.100.200", "Connected.", "R: {123456} [192.168.100.200] Connected."},
      {"R: ", 0, "1.2.3.4", "", "R: {     0} [        1.2.3.4] "},
      {"R: ", 12345678, "1.2.3.4", "x", "R: {12345678} [        1.2.3.4] x"},
      {"S: ", -1, "", "Error 10061. Connection is forcefully rejected.",
       "S: {    -1} [   Undefined   ] Error 10061. Connection is forcefully rejected."},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(FormatSessionLine(row.tag, row.handle, row.address, row.text), row.line);
  }
}

std::string Shown(std::string_view text) {
  const std::string line = FormatSessionLine("R: ", 1, "", text);
  return line.substr(std::string("R: {     1} [   Undefined   ] ").size());
}

TEST(SessionLog, NoByteOfAPeerLeavesTheLine) {
  const struct {
    const char* text;
    const char* shown;
  } rows[] = {
      {R"(< 250-a\r\n250-b\r\n250 c\r\n)", "< 250-a\u00B6250-b\u00B6250 c\u00B6"},
      {R"(\r\n)", "\u00B6"},
      {R"(\r\n\r\n)", "\u00B6\u00B6"},
      {R"(a\rb)", R"(a\x0Db)"},
      {R"(a\nb)", R"(a\x0Ab)"},
      {R"(a\n\rb)", R"(a\x0A\x0Db)"},
      {R"(a\r\r\n)", "a\\x0D\u00B6"},
      {R"(a\r)", R"(a\x0D)"},
      {R"(\0a\tb)", R"(\x00a\x09b)"},
      {R"(\x1B[2J\x07)", R"(\x1B[2J\x07)"},
      {R"(\x7F)", R"(\x7F)"},
      // Control characters of a terminal that are written with two bytes.
      {R"(\xC2\x9B2J)", R"(\xC2\x9B2J)"},
      {R"(a\xC2\x80\xC2\x85\xC2\x9F)", R"(a\xC2\x80\xC2\x85\xC2\x9F)"},
  };
  for (const auto& row : rows) EXPECT_EQ(Shown(Unescape(row.text)), row.shown) << row.text;
  // What is text stays text.
  for (const char* text : {"", "plain \\x41", "\xC3\xA4\xC3\xB6\xC3\xBC", "\xC2\xA0\xC2\xB6", "\xE2\x82\xAC",
                           "\xE2\x80\x9B", "\xC2", "\x9B\xC2"}) {
    EXPECT_EQ(Shown(text), text);
  }
}

TEST(SessionLog, NoTextMakesASecondLine) {
  std::string all;
  for (int byte = 0; byte < 256; ++byte) all += static_cast<char>(byte);
  for (const std::string& text : {all, std::string(all.rbegin(), all.rend())}) {
    for (const char byte : Shown(text)) {
      EXPECT_GE(static_cast<unsigned char>(byte), 32u);
      EXPECT_NE(byte, 127);
    }
  }
}

}  // namespace
}  // namespace trabex
