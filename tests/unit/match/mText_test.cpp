#include "match/mText.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "plain_match.h"
#include "support/expect_error.h"

namespace trabex {
namespace {

using mText::ComplexForm;
using mText::IsInvalidPattern;
using mText::LikeText;
using mText::LikeTextComplex;
using mText::MatchEntry;
using mText::MatchList;
using mText::PlainLike;

struct Row {
  std::string text;
  std::string pattern;
  bool matches;
};

const Row kRows[] = {
    // Plain text, the whole of it, without regard to case.
    {"", "", true},
    {"a", "", false},
    {"", "a", false},
    {"USER@HOST", "user@host", true},
    {"USER@HOST", "*@host", true},
    {"xUSER@HOST", "user@host", false},
    {"USER@HOSTx", "user@host", false},
    {"\xC3\xA4", "\xC3\xA4", true},
    {"\xC3\xA4", "\xC3\x84", true},
    {"\xC3\xA4", "\xC3\xB6", false},
    // ? takes one byte.
    {"a", "?", true},
    {"", "?", false},
    {"ab", "?", false},
    {"\xC3\xA4", "?", false},
    {"\xC3\xA4", "??", true},
    {std::string(1, '\0'), "?", true},
    // * takes any run.
    {"", "*", true},
    {"", "**", true},
    {"abc", "*", true},
    {"abc", "a*", true},
    {"abc", "*c", true},
    {"abc", "a*c", true},
    {"abc", "abc*", true},
    {"abc", "*abc*", true},
    {"abc", "*b", false},
    {"aab", "*ab", true},
    {"abab", "*ab", true},
    {"ababc", "*ab", false},
    {"mississippi", "m*iss*ip*", true},
    {"mississippi", "m*iss*x*", false},
    {"a.b.c", "*.*.*", true},
    {"a.b", "*.*.*", false},
    {"ab", "*?", true},
    {"", "*?", false},
    {"abcd", "*b?d", true},
    // # takes one digit.
    {"user7", "user#", true},
    {"user77", "user#", false},
    {"user", "user#", false},
    {"userx", "user#", false},
    {"user77", "user##", true},
    {"127.0.0.1", "*#.*#.*#.*#", true},
    {"127.0.0", "*#.*#.*#.*#", false},
    // Lists.
    {"b", "[abc]", true},
    {"B", "[abc]", true},
    {"b", "[ABC]", true},
    {"d", "[abc]", false},
    {"", "[abc]", false},
    {"ab", "[abc]", false},
    {"m", "[a-z]", true},
    {"M", "[a-z]", true},
    {"m", "[A-Z]", true},
    {"5", "[a-z]", false},
    {"5", "[a-z0-9]", true},
    {"5", "[!a-z]", true},
    {"m", "[!a-z]", false},
    {"M", "[!a-z]", false},
    {"", "[!a-z]", false},
    {"B", "[!b]", false},
    // Ranges are folded to lower case: [A-z] is the letters, without what lies between Z and a in ASCII.
    {"a", "[A-z]", true},
    {"Z", "[A-z]", true},
    {"_", "[A-z]", false},
    {"[", "[A-z]", false},
    {"m", "[a-Z]", true},
    {"_", "[_-a]", true},
    {"A", "[_-a]", true},
    {"a", "[a-a]", true},
    {"\xC3", "[\x80-\xFF]", true},
    {"\xC3", "[!\x80-\xFF]", false},
    {"a", "[\x80-\xFF]", false},
    // "-" first, last, alone, after a range.
    {"-", "[-a]", true},
    {"a", "[-a]", true},
    {"b", "[-a]", false},
    {"-", "[a-]", true},
    {"a", "[a-]", true},
    {"b", "[a-]", false},
    {"-", "[-]", true},
    {"-", "[--]", true},
    {"-", "[---]", true},
    {".", "[--/]", true},  // from "-" to "/"
    {",", "[--/]", false},
    {",", "[+--]", true},  // from "+" to "-"
    {"-", "[!-a]", false},
    {"b", "[!-a]", true},
    {"-", "[!a-]", false},
    {"b", "[a-c-e]", true},
    {"-", "[a-c-e]", true},
    {"e", "[a-c-e]", true},
    {"d", "[a-c-e]", false},
    // Wildcards in brackets are themselves.
    {"[", "[[]", true},
    {"?", "[?]", true},
    {"a", "[?]", false},
    {"*", "[*]", true},
    {"ab", "[*]", false},
    {"#", "[#]", true},
    {"1", "[#]", false},
    {"[?*#", "[[][?][*][#]", true},
    {"?", "[[?*#]", true},
    // "!" that does not negate.
    {"!", "!", true},
    {"!", "[a!]", true},
    {"b", "[a!]", false},
    {"!", "[!]", true},
    {"a", "[!]", false},
    {"", "[!]", false},
    {"!", "[!!]", false},
    {"a", "[!!]", true},
    // "]" outside brackets.
    {"]", "]", true},
    {"a]b", "a]b", true},
    {"a]", "[a]]", true},
    {"!]", "[!]]", true},
    // The empty list.
    {"", "[]", true},
    {"a", "[]", false},
    {"ab", "a[]b", true},
    {"a", "a[]", true},
    {"ab", "*[]b", true},
    {"ab", "a*[]", true},
    // Negation takes three bytes and the plain language after the prefix.
    {"abc", "[]a*", false},
    {"xyz", "[]a*", true},
    {"ABC", "[]a*", false},
    {"", "[]a*", true},
    {"]", "[]]", false},
    {"a", "[]]", true},
    {"", "[][]", false},
    {"a", "[][]", true},
    {"x", "[][]x", false},  // not the opposite of the opposite
    {"y", "[][]x", true},
    {"", "[]*", false},
    {"a", "a[]a", false},
    {"aa", "a[]a", true},
};

TEST(LikeText, MatchesTheWholeText) {
  for (const Row& row : kRows) {
    EXPECT_EQ(LikeText(row.text, row.pattern), row.matches) << "\"" << row.text << "\" / " << row.pattern;
  }
}

TEST(LikeText, RefusesAMalformedPatternWhereverTheFlawIs) {
  for (const char* pattern : {"[", "a[", "[a", "[!", "[!a", "x[a]y[", "[z-a]", "[9-0]", "[a-cz-x]", "[!z-a]",
                              "[Z-a]", "[a--]", "abc*[z-a]", "*[", "[]abc[", "[]x[z-a]", "[][", "[a]]["}) {
    // The texts fail before the flaw, reach it, or are empty.
    for (const char* text : {"", "a", "nothing alike", "xay", "abc"}) {
      ExpectError([&] { LikeText(text, pattern); }, 93, "mText.LikeText",
                  "Invalid Regular Expression in string: \"" + std::string(pattern) + "\".");
    }
    EXPECT_TRUE(IsInvalidPattern(pattern)) << pattern;
  }
}

TEST(LikeText, AgreesWithIsInvalidPattern) {
  for (const Row& row : kRows) EXPECT_FALSE(IsInvalidPattern(row.pattern)) << row.pattern;
}

TEST(PlainLike, RegardsCaseAndKnowsNoNegation) {
  const Row rows[] = {
      {"abc", "a*", true},
      {"Abc", "a*", false},
      {"m", "[A-Z]", false},
      {"M", "[A-Z]", true},
      {"_", "[A-z]", true},
      {"_", "[Z-a]", true},
      {"B", "[b]", false},
      {"B", "[!b]", true},
      {"abc", "[]a*", true},  // an empty list and then a*
      {"xyz", "[]a*", false},
      {"", "[]", true},
      {"]", "[]]", true},
      {"127.0.0.1", "*#.*#.*#.*#", true},
      {"::1", "*#.*#.*#.*#", false},
      {"0.0.0.0 ", "*#.*#.*#.*#", false},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(PlainLike(row.text, row.pattern), row.matches) << "\"" << row.text << "\" / " << row.pattern;
  }
  for (const char* pattern : {"x[", "x[z-a]", "x[a-Z]", "[]x["}) {
    ExpectError([&] { PlainLike("y", pattern); }, 93, "mText.PlainLike",
                "Invalid Regular Expression in string: \"" + std::string(pattern) + "\".");
  }
}

TEST(LikeText, TriesOnlyTheLastRunLonger) {
  // With every run tried at every length none of these would end.
  const std::string text(4000, 'a');
  std::string runs;
  for (int part = 0; part < 500; ++part) runs += "*a[a-z]";
  for (const std::string& pattern :
       {runs + "*b", std::string("*a*a*a*a*a*a*a*a*a*a*a*a*b"), "*" + std::string(2000, 'a') + "b*",
        "*a*a*a*a" + std::string(2000, '?') + "b*a*a*a"}) {
    EXPECT_FALSE(LikeText(text, pattern));
    ExpressionList list;
    list.Add("key", {{pattern}, false});
    EXPECT_FALSE(list.Contains(text));
  }
  EXPECT_TRUE(LikeText(text + "b", runs + "*b"));
}

TEST(LikeText, IsThePlainMatchForRandomPatterns) {
  std::mt19937 random(20260815);
  const auto pick = [&](std::string_view from) { return from[random() % from.size()]; };
  int matched = 0;
  int malformed = 0;
  for (int round = 0; round < 200000; ++round) {
    std::string text;
    for (auto size = random() % 8; size > 0; --size) text += pick("abABz-!]5");
    std::string pattern;
    for (auto size = random() % 10; size > 0; --size) pattern += pick("abAB**?#[[]]!-5");
    if (IsInvalidPattern(pattern)) {
      ++malformed;
      continue;
    }
    const bool expected = PlainMatch(text, pattern);
    ASSERT_EQ(LikeText(text, pattern), expected) << "\"" << text << "\" / " << pattern;
    ExpressionList list;
    // Under a key of its own the entry is tried with the parsed pattern, else it may be found by hash.
    list.Add(round % 2 == 0 ? "key" : pattern, {{pattern}, false});
    ASSERT_EQ(list.Contains(text), expected) << "\"" << text << "\" / " << pattern;
    if (expected) ++matched;
  }
  EXPECT_GT(matched, 5000);
  EXPECT_GT(malformed, 10000);
}

TEST(MatchEntry, WantsEveryMemberOfAGroup) {
  const ListEntry group{{"*@a", "x*"}, true};
  EXPECT_TRUE(MatchEntry("x@a", group, false));
  EXPECT_FALSE(MatchEntry("y@a", group, true));
  EXPECT_FALSE(MatchEntry("x@b", group, true));
  EXPECT_TRUE(MatchEntry("X@A", {{"x@a"}, false}, false));
  EXPECT_FALSE(MatchEntry("b", {{"x@a"}, false}, true));
}

TEST(MatchEntry, StopsAtTheFirstMemberThatFails) {
  const ListEntry group{{"x*", "["}, true};
  EXPECT_FALSE(MatchEntry("y", group, false));
  ExpectError([&] { MatchEntry("x", group, false); }, 93, "mText.LikeText",
              "Invalid Regular Expression in string: \"[\".");
}

TEST(MatchEntry, EmptyEntriesGoByTheDefaultEmptyGroupsDoNot) {
  EXPECT_TRUE(MatchEntry("a", {{}, false}, true));
  EXPECT_FALSE(MatchEntry("a", {{}, false}, false));
  EXPECT_FALSE(MatchEntry("a", {{}, true}, true));
  EXPECT_FALSE(MatchEntry("", {{}, true}, true));
}

ComplexForm Form(bool commas, bool blanks, std::string_view open, std::string_view close, bool undelimit) {
  return {commas, blanks, open, close, undelimit};
}

TEST(LikeTextComplex, TakesTheListApart) {
  const ComplexForm quoted = Form(true, true, "\"", "\"", true);
  const ComplexForm bare = Form(true, true, "", "", true);
  const ComplexForm whole = Form(false, false, "", "", false);
  const struct {
    const char* text;
    const char* patterns;
    ComplexForm form;
    bool matches;
  } rows[] = {
      {"a", "a", quoted, true},
      {"b", "a", quoted, false},
      {"b", "a,b", quoted, true},
      {"b", " a , b ", quoted, true},
      {"c", "a,b", quoted, false},
      // Blanks join what must match together.
      {"x@a", "*@a x*", quoted, true},
      {"y@a", "*@a x*", quoted, false},
      {"x@a", "*@a    x*", quoted, true},
      {"x@a", "*@a  x*", bare, false},  // the empty part between the blanks matches only the empty text
      {"x@a", "*@a x*", bare, true},
      {"y@b", "*@a x*, y*", bare, true},
      // An alternative without any part matches nothing, not even the empty text.
      {"", "", quoted, false},
      {"a", "", quoted, false},
      {"", "a,,b", quoted, false},
      {"", " ", quoted, false},
      {"", "", bare, false},
      {"", "a,,b", bare, false},
      {"b", "a,,b", quoted, true},
      // A list that is not split at blanks is one part, empty or not.
      {"", "", whole, true},
      {"a b", "a b", whole, true},
      {"a,b", "a,b", whole, true},
      {"a b", " a b ", whole, true},
      {"a", "a,b", whole, false},
      // Delimited parts are not split, and lose their delimiters.
      {"a,b c", "\"a,b c\"", quoted, true},
      {"a,b c", "x,\"A,B C\"", quoted, true},
      {"b", "\"a,b\"", quoted, false},
      {"", "\"\"", quoted, true},
      {"", "a,\"\"", quoted, true},
      {"a\"\"b", "\"a\"\"b\"", quoted, true},
      {"\"a\"", "\"a\"", bare, true},
      {"\"a\"", "\"a\"", Form(true, true, "\"", "\"", false), true},
      {"a", "\"a\"", Form(true, true, "\"", "\"", false), false},
      {"a,b", "<a,b>", Form(true, true, "<", ">", true), true},
      {"a,b", "\"a,b\"", Form(true, true, "\"", "", true), true},  // the close delimiter is the open one
      {"a b", "xa bX", Form(false, false, "X", "X", true), true},  // delimiters without regard to case
      {"a b", "\"a b\"", Form(false, true, "\"", "\"", true), true},
      {"a,b", "a,b", Form(false, true, "\"", "\"", true), true},
      {"a b", "x,a b", Form(true, false, "\"", "\"", true), true},
      // The prefix belongs to one part.
      {"x@a", "*@a []y*", quoted, true},
      {"y@a", "*@a []y*", quoted, false},
      {"", "[],postmaster@*", bare, true},
      {"Postmaster@x", "[],postmaster@*", bare, true},
      {"x", "[],postmaster@*", bare, false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(LikeTextComplex(row.text, row.patterns, row.form), row.matches)
        << "\"" << row.text << "\" / \"" << row.patterns << "\"";
  }
}

TEST(LikeTextComplex, RaisesUnderItsOwnName) {
  const ComplexForm quoted = Form(true, true, "\"", "\"", true);
  const char* source = "mText.LikeTextComplex";
  ExpectError([&] { LikeTextComplex("x", "a,b[", quoted); }, 93, source,
              "Invalid Regular Expression in string: \"b[\".");
  ExpectError([&] { LikeTextComplex("x", "b[", quoted); }, 93, source,
              "Invalid Regular Expression in string: \"b[\".");
  ExpectError([&] { LikeTextComplex("a", "a,\"b", quoted); }, 321, source,
              "Unbalanced delimiters in delimited string \"a,\"b\".");
  ExpectError([&] { LikeTextComplex("a", "\"a\"b", quoted); }, 321, source,
              "Invalid delimited string \"\"a\"b\".");
  // What follows the first alternative that matches is not read.
  EXPECT_TRUE(LikeTextComplex("a", "a,b[", quoted));
}

}  // namespace
}  // namespace trabex
