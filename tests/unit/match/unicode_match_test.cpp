// Texts and patterns with letters beyond ASCII.
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "base/error.h"
#include "base/text.h"
#include "match/address_replacement.h"
#include "match/mText.h"
#include "match/pattern.h"

namespace trabex {
namespace {

ExpressionList ListOf(std::initializer_list<std::string_view> patterns) {
  ExpressionList list;
  for (const std::string_view pattern : patterns) list.Add(pattern, {{std::string(pattern)}, false});
  return list;
}

TEST(FoldPattern, FoldsWhatIsBetweenTheWildcards) {
  const struct {
    const char* pattern;
    const char* folded;
  } rows[] = {
      {"*@BÜCHER.test", "*@bücher.test"},
      {"ſ?ſ#ſ*K", "s?s#s*k"},
      {"[]ſ", "[]s"},
      {"a[]ſ", "as"},
      {"[][]ſ", "[]s"},
      // A "[]" that is not in front before the folding is no negation.
      {"\u00AD[]ſ", "s"},
      // What becomes a wildcard is none.
      {"？＊＃［］", "[?][*][#][[]]"},
      {"＊", "[*]"},
      {"［］ſ", "[[]]s"},
      // Lists take single bytes.
      {"[ſ]ſ", "[ſ]s"},
      {"[!a-z]Ä", "[!a-z]ä"},
      {"[!]ſ", "!s"},
      // A letter and its mark are one character, whatever is around them.
      {"*A\u0308*", "*ä*"},
      {"*a*\u0308*", "*a*\u0308*"},
      // Nothing is left of it.
      {"\u00AD", ""},
      {"[]\u00AD", "[][]"},
      {"*\u00AD", "*"},
      {"ſ\xFF*", "s\xFF*"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(pattern::FoldPattern(row.pattern), row.folded) << row.pattern;
    EXPECT_FALSE(mText::IsInvalidPattern(row.folded)) << row.pattern;
  }
}

const struct {
  const char* text;
  const char* pattern;
  bool matches;
} kRows[] = {
    {"ſales@local.test", "sales@local.test", true},
    {"sales@local.test", "ſales@local.test", true},
    {"SALES@local.teﬆ", "\u200Bſales@*", true},
    {"s@blac\u212A.test", "*@black.test", true},
    {"s@BLACK.test", "*@blac\u212A.test", true},
    {"x@STRASSE.test", "*@straße.test", true},
    {"x@straẞe.test", "*@strasse.test", true},
    {"x@straße.test", "x@str*e.*", true},
    {"Ju\u0308rgen", "JÜRGEN", true},
    {"JÜRGEN", "jurgen", false},
    {"Σς", "σΣ", true},
    {"sales", "ſalez", false},
    {"ſalesx", "sales", false},
    {"xſales", "sales", false},
    // The other way round.
    {"ſales", "[]sales", false},
    {"ſalez", "[]sales", true},
    {"sales", "[]ſ*", false},
    {"", "[]\u00AD", false},
    {"x", "[]\u00AD", true},
    {"s", "\u00AD[]ſ", true},
    {"x", "\u00AD[]ſ", false},
    // ? and lists take one byte of the folded text.
    {"ſ", "?", true},
    {"\u00AD", "?", false},
    {"Ä", "??", true},
    {"ﬀ", "??", true},
    {"\uFF15", "#", true},
    {"ſales", "[r-t]ales", true},
    {"ſales", "[!s]ales", false},
    // What folds to a wildcard is none.
    {"x", "？", false},
    {"?", "？", true},
    {"？", "?", true},
    {"ab*", "ab＊", true},
    {"abc", "ab＊", false},
    {"[]", "［］", true},
    // Bytes that are no characters.
    {"B\xFC\x63her", "b\xFC\x43HER", true},
    {"B\xFC\x63her", "bücher", false},
    {"\xFFſ", "\xFFS", true},
};

TEST(LikeText, FoldsLettersBeyondAscii) {
  for (const auto& row : kRows) {
    EXPECT_EQ(mText::LikeText(row.text, row.pattern), row.matches) << row.text << " / " << row.pattern;
  }
}

// By hash, tried as one of several, as member of a group, and as the key of a replacement.
TEST(ExpressionList, FoldsLettersBeyondAsciiWhereverThePatternIs) {
  for (const auto& row : kRows) {
    const std::string pattern = row.pattern;
    EXPECT_EQ(ListOf({pattern}).Contains(row.text), row.matches) << row.text << " / " << pattern;
    ExpressionList others =
        ListOf({"no such text", "*no such end", "no*such", "nü such text", "*nü such end"});
    others.Add(pattern, {{pattern}, false});
    EXPECT_EQ(others.Find(row.text), row.matches ? std::optional<std::size_t>(5) : std::nullopt)
        << row.text << " / " << pattern;
    ExpressionList group;
    group.Add("group", {{pattern, "*"}, true});
    EXPECT_EQ(group.Contains(row.text), row.matches) << row.text << " / " << pattern;
    const ReplacementTable table{{pattern, "single"}};
    EXPECT_EQ(FindAddressReplacement(row.text, table).has_value(), row.matches)
        << row.text << " / " << pattern;
    const ReplacementTable listed{{"no, " + pattern, "listed"}};
    EXPECT_EQ(FindAddressReplacement(row.text, listed).has_value(), row.matches)
        << row.text << " / " << pattern;
  }
}

TEST(ExpressionList, FindsTheFirstOfSeveralSpellings) {
  const ExpressionList list = ListOf({"*@ſ.test", "x@s.test", "x@ſ.test", "*@s.test", "y@ſ.test"});
  EXPECT_EQ(list.Find("x@S.test"), 0U);
  EXPECT_EQ(list.Find("x@ſ.TEST"), 0U);
  const ExpressionList others = ListOf({"x@s.test", "x@ſ.test", "*@ſ.test", "*@s.test", "y@ſ.test"});
  EXPECT_EQ(others.Find("x@ſ.test"), 0U);
  EXPECT_EQ(others.Find("y@s.test"), 2U);
}

TEST(ExpressionList, KeysBeyondAsciiStayAsWritten) {
  ExpressionList list = ListOf({"sales", "ſales", "*@BÜCHER.test"});
  EXPECT_EQ(list.Entry(1).patterns.front(), "ſales");
  EXPECT_EQ(list.Entry(2).patterns.front(), "*@BÜCHER.test");
  // Only the case of ASCII letters makes no difference there.
  EXPECT_THROW(list.Add("ſALES", {{"ſALES"}, false}), Error);
  EXPECT_NO_THROW(list.Add("*@bücher.test", {{"*@bücher.test"}, false}));
  // A list that has been matched grows.
  EXPECT_FALSE(list.Contains("x@straße.test"));
  list.Add("*@STRASSE.test", {{"*@STRASSE.test"}, false});
  list.Add("*@GRÜẞE.test", {{"*@GRÜẞE.test"}, false});
  EXPECT_TRUE(list.Contains("x@straße.test"));
  EXPECT_TRUE(list.Contains("x@grüsse.test"));
}

TEST(ExpressionList, AMalformedPatternIsShownAsWritten) {
  const ExpressionList list = ListOf({"ſ[", "*x"});
  for (const char* text : {"x", "ſx"}) {
    try {
      list.Contains(text);
      ADD_FAILURE() << text;
    } catch (const Error& error) {
      EXPECT_EQ(error.Description(), "Invalid Regular Expression in string: \"ſ[\".");
    }
  }
}

TEST(FindAddressReplacement, GivesTheValueAsWritten) {
  const ReplacementTable table{{"JÜRGEN@x.test", "Jürgen@Ｘ.test"}, {"*@straße.test", "box@local.test"}};
  EXPECT_EQ(FindAddressReplacement("jürgen@x.test", table), "Jürgen@Ｘ.test");
  EXPECT_EQ(FindAddressReplacement("any@STRASSE.TEST", table), "box@local.test");
  EXPECT_EQ(FindAddressReplacement("jurgen@x.test", table), std::nullopt);
}

}  // namespace
}  // namespace trabex
