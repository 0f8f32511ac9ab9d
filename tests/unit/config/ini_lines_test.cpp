#include "config/ini_lines.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace trabex {
namespace {

using NumberedLines = std::vector<std::pair<std::size_t, std::string>>;

NumberedLines LinesOf(std::string_view text) {
  NumberedLines found;
  IniLines lines(text);
  for (std::string_view line; lines.Next(line);) found.emplace_back(lines.Number(), line);
  return found;
}

TEST(IniLines, EndAtCrLfOrBoth) {
  EXPECT_EQ(LinesOf("a\rb\nc\r\nd"), (NumberedLines{{1, "a"}, {2, "b"}, {3, "c"}, {4, "d"}}));
  EXPECT_EQ(LinesOf("a\r\r\nb\n\rc"), (NumberedLines{{1, "a"}, {2, ""}, {3, "b"}, {4, ""}, {5, "c"}}));
  EXPECT_EQ(LinesOf("a\n"), (NumberedLines{{1, "a"}})) << "an end is no line of its own";
  EXPECT_EQ(LinesOf("a\r"), (NumberedLines{{1, "a"}}));
  EXPECT_EQ(LinesOf(""), NumberedLines{});
  EXPECT_EQ(LinesOf("\n"), (NumberedLines{{1, ""}}));
}

TEST(IniLines, LoseBlanksAroundButNoTabs) {
  EXPECT_EQ(LinesOf("  a b  \n\tc\t\n   \n"), (NumberedLines{{1, "a b"}, {2, "\tc\t"}, {3, ""}}));
}

TEST(IniLines, SkipAByteOrderMarkAtTheStartOnly) {
  EXPECT_EQ(LinesOf("\xEF\xBB\xBF[Common]\n\xEF\xBB\xBF"
                    "a"),
            (NumberedLines{{1, "[Common]"},
                           {2,
                            "\xEF\xBB\xBF"
                            "a"}}));
  EXPECT_EQ(LinesOf("\xEF\xBB\xBF"), NumberedLines{});
  EXPECT_EQ(LinesOf("\xEF\xBB"), (NumberedLines{{1, "\xEF\xBB"}}));
}

TEST(IniLines, MayHoldAnyByteAndBeOfAnyLength) {
  const std::string with_nul("a\0b", 3);
  EXPECT_EQ(LinesOf(with_nul), (NumberedLines{{1, with_nul}}));
  const std::string long_line(3'000'000, 'x');
  EXPECT_EQ(LinesOf(long_line + "\n" + long_line), (NumberedLines{{1, long_line}, {2, long_line}}));
}

TEST(IniLines, LastLineMayHaveNoEnd) {
  for (const char* text : {"a\n", "a\r\n", "a\r", "\n", "\xEF\xBB\xBF\n"})
    EXPECT_TRUE(LastLineHasEnd(text)) << text;
  for (const char* text : {"", "a", "a\nb", "a\n ", "a\r\n\t", "\xEF\xBB\xBF"}) {
    EXPECT_FALSE(LastLineHasEnd(text)) << text;
  }
}

}  // namespace
}  // namespace trabex
