#include "app/printable.h"

#include <gtest/gtest.h>

#include <string_view>

namespace trabex {
namespace {

using std::string_view_literals::operator""sv;

TEST(Printable, OnlyWhatCanBeShownStays) {
  struct Row {
    std::string_view text;
    std::string_view shown;
  };
  const Row rows[] = {
      {"", ""},
      {"Invalid line: \"x\".", "Invalid line: \"x\"."},
      {"\x1B[31m\r\n\t\x7F", "\\x1B[31m\\x0D\\x0A\\x09\\x7F"},
      {"a\0b"sv, "a\\x00b"},
      {"\xC2\xA0 \xC3\xA4 \xE2\x82\xAC \xF0\x9F\x93\xA7", "\xC2\xA0 \xC3\xA4 \xE2\x82\xAC \xF0\x9F\x93\xA7"},
      {"\xEF\xBF\xBD\xF4\x8F\xBF\xBD", "\xEF\xBF\xBD\xF4\x8F\xBF\xBD"},
      {"\xFF\xFE", "\\xFF\\xFE"},
      {"\xC2\x9B", "\\xC2\\x9B"},  // a control character above ASCII
      {"\x80\xBF", "\\x80\\xBF"},  // a continuation of nothing
      {"a\u2028\u202Eb\u061C", "a\\xE2\\x80\\xA8\\xE2\\x80\\xAEb\\xD8\\x9C"},
      {"\U000E0041", "\\xF3\\xA0\\x81\\x81"},
      {"\xC3", "\\xC3"},  // nothing to continue it
      {"\xE2\x82", "\\xE2\\x82"},
      {"\xC3(", "\\xC3("},
      {"\xC0\xAF", "\\xC0\\xAF"},  // longer than needed
      {"\xE0\x82\xA9", "\\xE0\\x82\\xA9"},
      {"\xF0\x82\x82\xAC", "\\xF0\\x82\\x82\\xAC"},
      {"\xED\xA0\x80", "\\xED\\xA0\\x80"},           // half of a UTF-16 pair
      {"\xF4\x90\x80\x80", "\\xF4\\x90\\x80\\x80"},  // beyond Unicode
  };
  for (const Row& row : rows) EXPECT_EQ(Printable(row.text), row.shown) << row.shown;
}

}  // namespace
}  // namespace trabex
