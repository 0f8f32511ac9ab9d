#include "base/text.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/error.h"
#include "base/log.h"

namespace trabex {
namespace {

TEST(Text, TrimTakesBlanksOnly) {
  EXPECT_EQ(Trim("  a b  "), "a b");
  EXPECT_EQ(Trim("\ta "), "\ta");
  EXPECT_EQ(Trim("   "), "");
  EXPECT_EQ(Trim(""), "");
}

TEST(Text, CaseIsFoldedForAsciiOnly) {
  EXPECT_EQ(ToUpper("mail\xC3\xA4"), "MAIL\xC3\xA4");
  EXPECT_TRUE(EqualNoCase("Common", "cOMMON"));
  EXPECT_FALSE(EqualNoCase("\xC3\xA4", "\xC3\x84"));
  EXPECT_TRUE(StartsWithNoCase("Mail From", "MAIL "));
  EXPECT_FALSE(StartsWithNoCase("MA", "MAIL"));
  EXPECT_TRUE(EndsWithNoCase("host.EXAMPLE", ".example"));
}

TEST(Text, FindNoCase) {
  EXPECT_EQ(FindNoCase("x Size=5", " SIZE="), 1U);
  EXPECT_EQ(FindNoCase("abcabc", "C", 3), 5U);
  EXPECT_EQ(FindNoCase("abc", "d"), std::string_view::npos);
  EXPECT_EQ(FindNoCase("abc", "", 3), 3U);
  EXPECT_EQ(FindNoCase("abc", "a", 9), std::string_view::npos);
}

TEST(Text, ReplacementsAreNotSearchedAgain) {
  EXPECT_EQ(ReplaceAll("aaa", "a", "aa"), "aaaaaa");
  EXPECT_EQ(ReplaceAllNoCase("Ab aB", "AB", "x"), "x x");
}

TEST(Text, SplitKeepsEmptyPieces) {
  EXPECT_EQ(Split("a,,b", ','), (std::vector<std::string_view>{"a", "", "b"}));
  EXPECT_EQ(Split("", ','), (std::vector<std::string_view>{""}));
}

TEST(Text, Fields) {
  EXPECT_EQ(AlignRight("12", 6), "    12");
  EXPECT_EQ(AlignRight("1234567", 6), "1234567");
  EXPECT_EQ(ZeroPadded(4, 2), "04");
  EXPECT_EQ(ZeroPadded(123, 2), "123");
  EXPECT_EQ(FirstWord("SIZE 100"), "SIZE");
}

struct RecordingLog : Log {
  std::vector<std::string> lines;
  void LogLine(std::string_view message) override { lines.emplace_back(message); }
};

TEST(Log, ErrorLineNamesNumberAndSource) {
  RecordingLog log;
  log.LogError(321, "Bad.", "mCommon.ReadIniFile");
  RunLogged(log, "cProxy.Init", [] { throw Error(93, "mText.LikeText", "Oops."); });
  EXPECT_EQ(log.lines, (std::vector<std::string>{"Error 321 in mCommon.ReadIniFile. Bad.",
                                                 "Error 93 in mText.LikeText. Oops."}));
}

}  // namespace
}  // namespace trabex
