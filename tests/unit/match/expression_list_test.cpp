#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "base/error.h"
#include "base/text.h"
#include "base/unicode_fold.h"
#include "match/mText.h"
#include "support/expect_error.h"

namespace trabex {
namespace {

using mText::MatchEntry;
using mText::MatchList;

void Add(ExpressionList& list, const std::string& pattern) {
  list.Add(pattern, {{pattern}, false});
}

ExpressionList ListOf(const std::vector<std::string>& patterns) {
  ExpressionList list;
  for (const std::string& pattern : patterns) Add(list, pattern);
  return list;
}

TEST(ExpressionList, EmptyListMatchesNothing) {
  const ExpressionList list;
  EXPECT_FALSE(MatchList("", list));
  EXPECT_FALSE(MatchList("a", list));
  EXPECT_EQ(list.Count(), 0U);
  EXPECT_TRUE(list.Entries().empty());
}

TEST(ExpressionList, FindsEveryKindOfEntry) {
  const ExpressionList list =
      ListOf({"plain@host", "*@Ending.test", "*.sub.ending.test", "pre*", "mid*dle", "#?[x-z]", "[]*[!!]"});
  const struct {
    const char* text;
    bool matches;
  } rows[] = {
      {"PLAIN@host", true},
      {"plain@hosts", false},
      {"a@ending.TEST", true},
      {"@ending.test", true},
      {"ending.test", false},
      {"a.sub.ending.test", true},
      {"sub.ending.test", false},
      {"Prefix", true},
      {"midXdle", true},
      {"1-y", true},
      {"1-a", false},
      {"", true},
      {"wow!", true},
      {"wow", false},
  };
  for (const auto& row : rows) EXPECT_EQ(list.Contains(row.text), row.matches) << row.text;
}

TEST(ExpressionList, EmptyPatternsAndRunsMatchAsInAScan) {
  EXPECT_TRUE(ListOf({""}).Contains(""));
  EXPECT_FALSE(ListOf({""}).Contains("a"));
  EXPECT_TRUE(ListOf({"[]"}).Contains(""));
  EXPECT_FALSE(ListOf({"[]"}).Contains("a"));
  EXPECT_TRUE(ListOf({"*"}).Contains(""));
  EXPECT_TRUE(ListOf({"*"}).Contains("a"));
  EXPECT_TRUE(ListOf({"[]", "postmaster@*"}).Contains("Postmaster@x"));
  EXPECT_FALSE(ListOf({"[]", "postmaster@*"}).Contains("x@y"));
}

TEST(ExpressionList, WildcardsOfTheTextAreText) {
  const ExpressionList list = ListOf({"*ending", "plain", "?"});
  EXPECT_TRUE(list.Contains("*ending"));
  EXPECT_FALSE(list.Contains("*end"));
  EXPECT_FALSE(list.Contains("*plain"));
  EXPECT_FALSE(ListOf({"a[*]b"}).Contains("aXb"));
  // The key of an "*" entry is no plain entry.
  EXPECT_FALSE(ListOf({"*ab", "x"}).Contains("*a"));
  // Nor is a text that is written like a pattern found by it.
  EXPECT_FALSE(ListOf({"[ab]", "plain"}).Contains("[ab]"));
}

TEST(ExpressionList, GroupsAndKeysOfTheirOwn) {
  ExpressionList list;
  list.Add("*@a x*", {{"*@a", "x*"}, true});
  list.Add("SIZE", {{"SIZE 1000"}, false});
  list.Add("empty", {{}, false});
  list.Add("empty group", {{}, true});
  list.Add("single", {{"*@b"}, true});
  Add(list, "plain");
  EXPECT_TRUE(list.Contains("x@a"));
  EXPECT_FALSE(list.Contains("y@a"));
  EXPECT_FALSE(list.Contains("*@a x*")) << "a group's key is no pattern";
  EXPECT_TRUE(list.Contains("size 1000"));
  EXPECT_FALSE(list.Contains("SIZE"));
  EXPECT_FALSE(list.Contains("empty"));
  EXPECT_TRUE(list.Contains("c@b"));
  EXPECT_EQ(list.Count(), 6U);
}

TEST(ExpressionList, RefusesAKeyThatIsThere) {
  ExpressionList list = ListOf({"a@b", "*@c"});
  list.Add("*@d e*", {{"*@d", "e*"}, true});
  for (const char* key : {"a@b", "A@B", "*@C", "*@D E*"}) {
    ExpectError(
        [&] {
          list.Add(key, {{"other"}, false});
        },
        457, "mText.ExpressionList", "This key is already associated with an element of this collection");
  }
  EXPECT_EQ(list.Count(), 3U);
  EXPECT_FALSE(list.Contains("other"));
  Add(list, "a@bb");
  EXPECT_EQ(list.Count(), 4U);
}

TEST(ExpressionList, KeepsItsEntriesInOrderAndAsWritten) {
  ExpressionList list = ListOf({"B", "*a", "[x]"});
  list.Add("g", {{"1", "2"}, true});
  list.Add("", {{""}, false});
  const std::vector<ListEntry> expected = {
      {{"B"}, false}, {{"*a"}, false}, {{"[x]"}, false}, {{"1", "2"}, true}, {{""}, false}};
  EXPECT_EQ(list.Entries(), expected);
  for (std::size_t index = 0; index < expected.size(); ++index) EXPECT_EQ(list.Entry(index), expected[index]);
  Add(list, "late");
  ASSERT_EQ(list.Entries().size(), 6U) << "entries that come after the first call";
  EXPECT_EQ(list.Entries()[5], (ListEntry{{"late"}, false}));
}

TEST(ExpressionList, KeepsManyListsOfBytesApart) {
  ExpressionList list;
  const auto pair = [](int number) {
    return std::string{static_cast<char>('a' + number / 20), static_cast<char>('a' + number % 20)};
  };
  for (int number = 0; number < 400; ++number) {
    // The same bytes in as many different lists, before and after a run.
    const std::string two = pair(number);
    const std::string name = std::to_string(number);
    Add(list, name + ":[" + two + "-]*[!" + two + "]" + name);
  }
  for (int number = 0; number < 400; ++number) {
    const std::string two = pair(number);
    const std::string name = std::to_string(number);
    EXPECT_TRUE(list.Contains(name + ":" + two[0] + "z" + name)) << number;
    EXPECT_TRUE(list.Contains(name + ":" + two[1] + two + "z" + name)) << number;
    EXPECT_FALSE(list.Contains(name + ":" + two[0] + two[1] + name)) << number;
    EXPECT_FALSE(list.Contains(name + ":zz" + name)) << number;
  }
}

TEST(ExpressionList, GrowsAfterItWasMatched) {
  ExpressionList list;
  for (int number = 0; number < 300; ++number) {
    const std::string name = "name" + std::to_string(number);
    EXPECT_FALSE(list.Contains(name));
    Add(list, number % 3 == 0 ? name : number % 3 == 1 ? "*e" + std::to_string(number) : name + "[]");
    EXPECT_TRUE(list.Contains(name));
  }
  EXPECT_TRUE(list.Contains("name0"));
  EXPECT_FALSE(list.Contains("name"));
}

TEST(ExpressionList, CopiesAreIndependent) {
  ExpressionList first = ListOf({"a", "*b"});
  EXPECT_TRUE(first.Contains("a"));
  EXPECT_EQ(first.Entries().size(), 2U);
  ExpressionList second = first;
  Add(second, "c");
  EXPECT_FALSE(first.Contains("c"));
  EXPECT_TRUE(second.Contains("c"));
  EXPECT_TRUE(second.Contains("xb"));
  EXPECT_EQ(first.Entries().size(), 2U);
  EXPECT_EQ(second.Entries().size(), 3U);
  Add(first, "c");
  first = second;
  EXPECT_EQ(first.Count(), 3U);

  ExpressionList third = std::move(first);
  EXPECT_TRUE(third.Contains("c"));
  first = ExpressionList();
  EXPECT_EQ(first.Count(), 0U);
  Add(first, "again");
  EXPECT_TRUE(first.Contains("again"));
}

TEST(ExpressionList, AMovedListIsEmpty) {
  ExpressionList first = ListOf({"a"});
  const ExpressionList second = std::move(first);
  EXPECT_EQ(first.Count(), 0U);  // as the header promises
  EXPECT_FALSE(first.Contains("a"));
  EXPECT_TRUE(second.Contains("a"));
}

TEST(ExpressionList, RaisesWhereTheScanReachesAMalformedEntry) {
  const ExpressionList list = ListOf({"first", "*ending", "x?", "bad[", "later", "*late", "y?", "worse["});
  for (const char* text : {"first", "an ending", "xy"}) EXPECT_TRUE(list.Contains(text)) << text;
  for (const char* text : {"later", "too late", "yz", "nothing", "bad["}) {
    ExpectError([&] { list.Contains(text); }, 93, "mText.LikeText",
                "Invalid Regular Expression in string: \"bad[\".");
  }
}

TEST(ExpressionList, RaisesForAGroupOnlyWhenItsMembersBeforeMatch) {
  ExpressionList list;
  list.Add("x* []y[", {{"x*", "[]y["}, true});
  Add(list, "xa");
  Add(list, "*b");
  EXPECT_FALSE(list.Contains("a"));
  EXPECT_TRUE(list.Contains("b"));
  for (const char* text : {"xa", "xb"}) {
    ExpectError([&] { list.Contains(text); }, 93, "mText.LikeText",
                "Invalid Regular Expression in string: \"[]y[\".");
  }
}

// The result of a match, or the text of its error.
using Outcome = std::pair<bool, std::string>;

template <class Match>
Outcome OutcomeOf(Match match) {
  try {
    return {match(), ""};
  } catch (const Error& error) {
    return {false, std::to_string(error.Number()) + error.Source() + error.Description()};
  }
}

Outcome Scan(std::string_view text, const std::vector<ListEntry>& entries) {
  return OutcomeOf([&] {
    for (const ListEntry& entry : entries) {
      if (MatchEntry(text, entry, false)) return true;
    }
    return false;
  });
}

TEST(ExpressionList, IsTheScanForRandomLists) {
  std::mt19937 random(457);
  const auto pick = [&](std::string_view from) { return from[random() % from.size()]; };
  const auto word = [&](std::string_view from, unsigned longest) {
    std::string result;
    for (auto size = random() % (longest + 1); size > 0; --size) result += pick(from);
    return result;
  };
  const auto letters = [&](unsigned most) {
    static const std::string kLetters[] = {"a",
                                           "B",
                                           ".",
                                           "\xC3\xA4",
                                           "\xC3\x84",
                                           "\xEF\xBD\x81",
                                           "\xE1\xB4\xAE",
                                           "\xEF\xBC\x8A",
                                           "\xEF\xBC\x8E",
                                           "\xC2\xAD",
                                           "\xC3",
                                           "a\xCC\x88"};
    std::string result;
    for (auto count = random() % (most + 1); count > 0; --count)
      result += kLetters[random() % std::size(kLetters)];
    return result;
  };
  const auto pattern = [&]() -> std::string {
    switch (random() % 10) {
      case 0:
      case 1:
        return word("abAB.", 4);
      // Letters beyond ASCII, whole ones and others.
      case 8:
        return letters(3);
      case 9:
        return (random() % 3 == 0 ? "[]*" : "*") + letters(2) + word("ab*", 1) + letters(1);
      case 2:
      case 3:
        return "*" + word("abAB.", 3);
      case 4:
        return word("ab", 2) + "*" + word("ab", 2);
      case 5:
        return "[]" + word("abc*?", 3);
      case 6:
        return word("ab*?#[]!-", 5);
      default:
        return word("ab?[ab]", 4);
    }
  };
  int hits = 0;
  int hits_beyond_ascii = 0;
  int errors = 0;
  for (int round = 0; round < 5000; ++round) {
    ExpressionList list;
    std::vector<ListEntry> entries;
    const bool well_formed = round % 2 == 0;
    for (auto count = random() % 12; count > 0; --count) {
      ListEntry entry;
      entry.is_group = random() % 5 == 0;
      for (auto members = entry.is_group ? random() % 4 : 1; members > 0; --members) {
        const std::string member = pattern();
        if (!well_formed || !mText::IsInvalidPattern(member)) entry.patterns.push_back(member);
      }
      if (random() % 20 == 0) entry.patterns.clear();
      std::string key =
          entry.is_group || entry.patterns.empty() ? "key " + std::to_string(count) : entry.patterns.front();
      if (random() % 20 == 0) key = FirstWord(key + "!" + std::to_string(count));
      try {
        list.Add(key, entry);
        entries.push_back(entry);
      } catch (const Error& error) {
        ASSERT_EQ(error.Number(), 457);
      }
      // Lists may be matched while they grow.
      if (random() % 8 == 0) OutcomeOf([&] { return list.Contains("ab"); });
    }
    ASSERT_EQ(list.Entries(), entries);
    for (int text_count = 0; text_count < 20; ++text_count) {
      const std::string text = text_count % 3 == 0 ? letters(4) : word("abAB.*", 5);
      const Outcome expected = Scan(text, entries);
      ASSERT_EQ(OutcomeOf([&] { return list.Contains(text); }), expected)
          << "\"" << text << "\" in round " << round;
      std::optional<std::size_t> found;
      const Outcome finding = OutcomeOf([&] { return (found = list.Find(text)).has_value(); });
      ASSERT_EQ(finding, expected) << "\"" << text << "\" in round " << round;
      if (found) {
        // The first one: none before it matches.
        EXPECT_TRUE(mText::MatchEntry(text, entries[*found], false)) << text;
        EXPECT_EQ(Scan(text, {entries.begin(), entries.begin() + static_cast<std::ptrdiff_t>(*found)}),
                  Outcome(false, ""))
            << text;
      }
      if (expected.first) ++hits;
      if (expected.first && !IsAscii(text)) ++hits_beyond_ascii;
      if (!expected.second.empty()) ++errors;
    }
  }
  EXPECT_GT(hits, 10000);
  EXPECT_GT(hits_beyond_ascii, 1000);
  EXPECT_GT(errors, 1000);
}

TEST(ExpressionList, LongListsAreTheScanToo) {
  std::mt19937 random(93);
  ExpressionList list;
  std::vector<std::string> names;
  for (int number = 0; number < 20000; ++number) {
    std::string name =
        "u" + std::to_string(random() % 100000000) + "@d" + std::to_string(random() % 1000) + ".test";
    if (number % 2 == 0) name = "*" + name.substr(random() % 8);
    try {
      Add(list, name);
      names.push_back(name);
    } catch (const Error& error) {
      ASSERT_EQ(error.Number(), 457);
    }
  }
  EXPECT_EQ(list.Count(), names.size());
  for (const std::string& name : names) {
    ASSERT_TRUE(list.Contains(ToUpper(name[0] == '*' ? "more" + name.substr(1) : name))) << name;
  }
  const std::vector<ListEntry>& entries = list.Entries();
  for (int round = 0; round < 20; ++round) {
    std::string text = names[random() % names.size()];
    text[random() % text.size()] = '5';
    ASSERT_EQ(Outcome(list.Contains(text), ""), Scan(text, entries)) << text;
  }
}

}  // namespace
}  // namespace trabex
