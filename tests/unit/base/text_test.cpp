#include "base/text.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/error.h"
#include "base/log.h"
#include "support/recorded_log.h"

namespace trabex {
namespace {

TEST(Text, TrimTakesBlanksOnly) {
  EXPECT_EQ(Trim("  a b  "), "a b");
  EXPECT_EQ(Trim("\ta "), "\ta");
  EXPECT_EQ(Trim("   "), "");
  EXPECT_EQ(WithoutLineEnd("a\r\n\r\n"), "a\r\n");
  EXPECT_EQ(WithoutLineEnd("a\n"), "a\n");
  EXPECT_EQ(WithoutLineEnd("\r\n"), "");
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

TEST(Text, SingleBytes) {
  EXPECT_EQ(ToLower('Z'), 'z');
  EXPECT_EQ(ToUpper('z'), 'Z');
  // The neighbours of the letters.
  for (char c : {'@', '[', '`', '{', '\xC4', '\0'}) {
    EXPECT_EQ(ToLower(c), c);
    EXPECT_EQ(ToUpper(c), c);
  }
  EXPECT_TRUE(IsDigit('0') && IsDigit('9'));
  EXPECT_FALSE(IsDigit('/') || IsDigit(':') || IsDigit('\xB2'));
  for (char c : {'\0', '\t', '\r', '\x1F', '\x7F'}) EXPECT_TRUE(IsControl(c));
  for (char c : {' ', '~', '\x80', '\xFF'}) EXPECT_FALSE(IsControl(c));
  for (char c : {'0', '9', 'a', 'z', 'A', 'Z', '-', '_'}) EXPECT_TRUE(IsHostNameByte(c)) << c;
  for (char c : {'.', '/', ':', '@', '[', '`', '{', ' ', '\0', '\xE9'}) EXPECT_FALSE(IsHostNameByte(c)) << c;
}

TEST(Text, EndsAndBeginningsOfShortTexts) {
  EXPECT_TRUE(StartsWithNoCase("", ""));
  EXPECT_TRUE(EndsWithNoCase("ab", ""));
  EXPECT_FALSE(EndsWithNoCase("b", "ab"));
  EXPECT_FALSE(EndsWithNoCase("abc", "ab"));
  EXPECT_FALSE(EqualNoCase("ab", "abc"));
  EXPECT_TRUE(EqualNoCase("", ""));
}

TEST(Text, FindNoCase) {
  EXPECT_EQ(FindNoCase("x Size=5", " SIZE="), 1U);
  EXPECT_EQ(FindNoCase("abcabc", "C", 3), 5U);
  EXPECT_EQ(FindNoCase("abc", "d"), std::string_view::npos);
  EXPECT_EQ(FindNoCase("abc", "", 3), 3U);
  EXPECT_EQ(FindNoCase("abc", "a", 9), std::string_view::npos);
  EXPECT_EQ(FindNoCase("abc", "", 4), std::string_view::npos);
  EXPECT_EQ(FindNoCase("", ""), 0U);
  EXPECT_EQ(FindNoCase("", "a"), std::string_view::npos);
  EXPECT_EQ(FindNoCase("aab", "AB"), 1U);
  EXPECT_EQ(FindNoCase("ab", "abc"), std::string_view::npos);
}

TEST(Text, ReplacementsAreNotSearchedAgain) {
  EXPECT_EQ(ReplaceAll("aaa", "a", "aa"), "aaaaaa");
  EXPECT_EQ(ReplaceAllNoCase("Ab aB", "AB", "x"), "x x");
  EXPECT_EQ(ReplaceAll("Ab ab", "ab", "x"), "Ab x");
  EXPECT_EQ(ReplaceAll("aaaa", "aaa", ""), "a");
  EXPECT_EQ(ReplaceAll("abab", "ba", "ab"), "aabb");
  EXPECT_EQ(ReplaceAll("", "a", "b"), "");
  EXPECT_EQ(ReplaceAllNoCase("xay", "A", "(A)"), "x(A)y");
}

TEST(Text, SplitKeepsEmptyPieces) {
  EXPECT_EQ(Split("a,,b", ','), (std::vector<std::string_view>{"a", "", "b"}));
  EXPECT_EQ(Split("", ','), (std::vector<std::string_view>{""}));
  EXPECT_EQ(Split(",", ','), (std::vector<std::string_view>{"", ""}));
  EXPECT_EQ(Split("a,", ','), (std::vector<std::string_view>{"a", ""}));
  EXPECT_EQ(Split("a", ','), (std::vector<std::string_view>{"a"}));
}

TEST(Text, Fields) {
  EXPECT_EQ(AlignRight("12", 6), "    12");
  EXPECT_EQ(AlignRight("1234567", 6), "1234567");
  EXPECT_EQ(AlignRight("123456", 6), "123456");
  EXPECT_EQ(AlignRight("", 2), "  ");
  std::string line = "row";
  AppendAlignedRight(line, "12", 4);
  AppendAlignedRight(line, "345", 2);
  EXPECT_EQ(line, "row  12345");
  EXPECT_EQ(Quoted("a \"b"), "\"a \"b\"");
  EXPECT_EQ(ZeroPadded(0, 2), "00");
  EXPECT_EQ(ZeroPadded(4, 2), "04");
  EXPECT_EQ(ZeroPadded(123, 2), "123");
  EXPECT_EQ(FirstWord("SIZE 100"), "SIZE");
  EXPECT_EQ(FirstWord("SIZE"), "SIZE");
  EXPECT_EQ(FirstWord(" SIZE"), "");
  EXPECT_EQ(FirstWord(""), "");
}

TEST(Text, TheDomainOfAnAddressFollowsItsLastAt) {
  EXPECT_EQ(AddressDomain("a@b"), "b");
  EXPECT_EQ(AddressDomain("a@b@c"), "c");
  EXPECT_EQ(AddressDomain("\"x@y\"@c"), "c");
  EXPECT_EQ(AddressDomain("a"), "a");
  EXPECT_EQ(AddressDomain("a@"), "");
  EXPECT_EQ(AddressDomain(""), "");
}

TEST(Text, ContainersWithoutRegardToCase) {
  std::unordered_map<std::string, int, HashNoCase, SameNoCase> numbers = {{"One", 1}, {"\xC3\xA4", 2}};
  EXPECT_EQ(numbers.find(std::string_view("oNE")), numbers.find(std::string_view("ONE")));
  EXPECT_NE(numbers.find(std::string_view("one")), numbers.end());
  EXPECT_EQ(numbers.find(std::string_view("\xC3\x84")), numbers.end());
  EXPECT_FALSE(numbers.emplace("ONE", 3).second);
  EXPECT_EQ(HashNoCase{}("MAIL.Size"), HashNoCase{}("mail.SIZE"));
  EXPECT_NE(HashNoCase{}("ab"), HashNoCase{}("ba"));
}

TEST(Log, ErrorLineNamesNumberAndSource) {
  RecordedLog log;
  log.LogError(321, "Bad.", "mCommon.ReadIniFile");
  RunLogged(log, "cProxy.Init", [] { throw Error(93, "mText.LikeText", "Oops."); });
  EXPECT_EQ(log.Lines(), (std::vector<std::string>{"Error 321 in mCommon.ReadIniFile. Bad.",
                                                   "Error 93 in mText.LikeText. Oops."}));
}

TEST(Log, OtherExceptionsAreLoggedUnderTheHandlersName) {
  RecordedLog log;
  RunLogged(log, "cProxy.Init", [] { throw std::runtime_error("No memory."); });
  EXPECT_EQ(log.Lines(), (std::vector<std::string>{"Error 7 in cProxy.Init. No memory."}));
  RunLogged(log, "cProxy.Init", [] {});
  EXPECT_EQ(log.Lines().size(), 1U) << "nothing to log";
}

}  // namespace
}  // namespace trabex
