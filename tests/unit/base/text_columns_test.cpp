#include "base/text_columns.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace trabex {
namespace {

TEST(TextColumns, CharactersHaveTheirWidths) {
  struct Row {
    char32_t code;
    std::size_t columns;
  };
  const Row rows[] = {
      {U'a', 1},      {U'~', 1},      {U'\u00E4', 1}, {U'\u4F60', 2},     {U'\uFF21', 2},
      {U'\uAC00', 2}, {U'\u0301', 0}, {U'\u200D', 0}, {U'\U0001F600', 2}, {U'\u001B', 0},
      {U'\u009B', 0}, {U'\u202E', 0}, {U'\u2026', 1}, {U'\u2588', 1},     {U'\u2581', 1},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(CharacterColumns(row.code), row.columns) << static_cast<std::uint32_t>(row.code);
  }
}

TEST(TextColumns, NothingReachesBeyondItsField) {
  struct Row {
    std::string_view text;
    std::size_t columns;
    CutSign cut;
    std::string_view shown;
    std::size_t used;
  };
  const Row rows[] = {
      {"plain", 80, CutSign::kNone, "plain", 5},
      {"plain", 5, CutSign::kEllipsis, "plain", 5},
      {"plain", 3, CutSign::kNone, "pla", 3},
      {"plain", 3, CutSign::kEllipsis, "pl\u2026", 3},
      {"plain", 1, CutSign::kEllipsis, "\u2026", 1},
      {"plain", 0, CutSign::kEllipsis, "", 0},
      {"", 5, CutSign::kEllipsis, "", 0},
      {"a\x1B[31mb\r\n\t\x7F", 80, CutSign::kNone, "a?[31mb????", 11},
      {std::string_view("a\0b", 3), 80, CutSign::kNone, "a?b", 3},
      {"h\xC3\xA4user", 3, CutSign::kNone, "h\u00E4u", 3},
      {"\xC2\x9B"
       "31m",
       80, CutSign::kNone, "?31m", 4},
      {"bad \xFF\xC3(", 80, CutSign::kNone,
       "bad ?"
       "?(",
       7},
      {"cut \xE4\xBD", 80, CutSign::kNone, "cut ??", 6},
      {"\u4F60\u597D", 3, CutSign::kNone, "\u4F60", 2},
      {"\u4F60\u597D", 3, CutSign::kEllipsis, "\u4F60\u2026", 3},
      {"\u4F60\u597D", 4, CutSign::kEllipsis, "\u4F60\u597D", 4},
      {"\u4F60\u597D", 2, CutSign::kEllipsis, "\u2026", 1},
      {"e\u0301\u0301\u0301x", 80, CutSign::kNone, "e???x", 5},
      {"e\u0301\u0301\u0301x", 3, CutSign::kEllipsis, "e?\u2026", 3},
      {"\U0001F600\U0001F600", 3, CutSign::kNone, "\U0001F600", 2},
      {"a\u200B\u202Eb", 80, CutSign::kNone, "a??b", 4},
  };
  for (const Row& row : rows) {
    std::string line = ">";
    EXPECT_EQ(AppendColumns(line, row.text, row.columns, row.cut), row.used) << row.text;
    EXPECT_EQ(line, ">" + std::string(row.shown)) << row.text;
  }
}

}  // namespace
}  // namespace trabex
