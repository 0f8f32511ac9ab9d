#include "match/literal_index.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"
#include "base/text.h"
#include "match/mText.h"
#include "plain_match.h"

namespace trabex {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

bool Add(LiteralIndex& index, const std::vector<std::string_view>& texts) {
  return index.Add(texts);
}

std::vector<std::uint32_t> NumbersIn(const LiteralIndex& index, std::string_view text) {
  std::vector<std::uint32_t> numbers;
  index.ForEachIn(text, [&numbers](std::uint32_t number) {
    numbers.push_back(number);
    return true;
  });
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

TEST(LiteralIndex, FindsByAPieceAnywhereInTheText) {
  LiteralIndex index;
  EXPECT_THAT(NumbersIn(index, "anything"), IsEmpty());
  EXPECT_TRUE(Add(index, {"newsletter"}));
  EXPECT_TRUE(Add(index, {"x", "spam"}));
  EXPECT_TRUE(Add(index, {"@b"}));
  EXPECT_FALSE(Add(index, {"a", "b"}));
  EXPECT_FALSE(Add(index, {}));
  EXPECT_TRUE(Add(index, {"last.test"}));
  EXPECT_THAT(NumbersIn(index, "newsletter"), ElementsAre(0));
  EXPECT_THAT(NumbersIn(index, "the newsletter@b"), ElementsAre(0, 2));
  EXPECT_THAT(NumbersIn(index, "x-spam-x"), ElementsAre(1));
  EXPECT_THAT(NumbersIn(index, "spam"), ElementsAre(1));
  EXPECT_THAT(NumbersIn(index, "spa"), IsEmpty());
  EXPECT_THAT(NumbersIn(index, ""), IsEmpty());
  EXPECT_THAT(NumbersIn(index, "b"), IsEmpty());
  EXPECT_THAT(NumbersIn(index, "at last.test"), ElementsAre(3));
}

TEST(LiteralIndex, GivesEachOnceAndStopsWhenTold) {
  LiteralIndex index;
  for (int number = 0; number < 5; ++number) EXPECT_TRUE(Add(index, {"ab"}));
  EXPECT_THAT(NumbersIn(index, "abababab"), ElementsAre(0, 1, 2, 3, 4));
  int visits = 0;
  index.ForEachIn("abababab", [&visits](std::uint32_t) { return ++visits < 3; });
  EXPECT_EQ(visits, 3);
}

TEST(LiteralIndex, ChoosesAPieceUnderWhichFewAre) {
  LiteralIndex index;
  for (int number = 0; number < 500; ++number) {
    if (number == 250) index.Shrink();
    EXPECT_TRUE(Add(index, {"common-domain.test", std::to_string(10000 + number)}));
  }
  EXPECT_LT(NumbersIn(index, "x@common-domain.test").size(), 100U);
  EXPECT_THAT(NumbersIn(index, "10123@common-domain.test"), Contains(123));
  EXPECT_THAT(NumbersIn(index, "10499@common-domain.test"), Contains(499));
  EXPECT_THAT(NumbersIn(index, "10499@other.test"), Not(Contains(123)));
}

bool Scan(std::string_view text, const std::vector<ListEntry>& entries, std::optional<std::size_t>& first) {
  for (std::size_t at = 0; at < entries.size(); ++at) {
    const std::vector<std::string>& patterns = entries[at].patterns;
    if (std::all_of(patterns.begin(), patterns.end(),
                    [&](const std::string& pattern) { return PlainMatch(text, pattern); })) {
      first = at;
      return true;
    }
  }
  return false;
}

// Lists that are long enough for the index, of patterns with and without plain texts.
TEST(LiteralIndex, ListsWithItAreTheScan) {
  std::mt19937 random(1000003);
  static const char* const kWords[] = {"user", "News", "letter",  "@host",  ".test", "spam",
                                       "ab",   "-",    "1234",    "5",      "aaaa",  "@",
                                       "x",    "",     "example", "BOUNCES"};
  static const char* const kWildcards[] = {"*", "*", "*", "?", "#", "[a-m]", "[!0-9]", "[]", "[*]"};
  const auto word = [&] {
    return kWords[random() % std::size(kWords)] + (random() % 2 == 0 ? std::to_string(random() % 30) : "");
  };
  const auto make_pattern = [&] {
    std::string result = random() % 12 == 0 ? "[]" : "";
    if (random() % 2 == 0) result += kWildcards[random() % std::size(kWildcards)];
    for (auto words = random() % 3 + 1; words > 0; --words) {
      result += word() + kWildcards[random() % std::size(kWildcards)];
    }
    return random() % 3 == 0 ? result + word() : result;
  };
  // A text that may well match the pattern.
  const auto text_like = [&](std::string_view pattern) {
    std::string text;
    for (std::size_t at = 0; at < pattern.size(); ++at) {
      if (pattern[at] == '[') {
        at = pattern.find(']', at);
        text += random() % 2 == 0 ? "b" : "";
      } else if (std::string_view("*?#").find(pattern[at]) != std::string_view::npos) {
        text += pattern[at] == '#' ? std::to_string(random() % 10) : pattern[at] == '?' ? "z" : word();
      } else {
        text += random() % 30 == 0 ? 'q' : random() % 2 == 0 ? ToUpper(pattern[at]) : pattern[at];
      }
    }
    return text;
  };
  int hits = 0;
  int misses = 0;
  for (int round = 0; round < 80; ++round) {
    ExpressionList list;
    std::vector<ListEntry> entries;
    for (auto count = random() % 150 + 1; count > 0; --count) {
      ListEntry entry{{make_pattern()}, random() % 10 == 0};
      if (entry.is_group) entry.patterns.push_back(make_pattern());
      // What is not the opposite of something matches nearly everything.
      if (entry.patterns.front().starts_with("[]") && random() % 20 != 0) continue;
      const std::string key = entry.is_group ? "group " + std::to_string(count) : entry.patterns.front();
      try {
        list.Add(key, entry);
        entries.push_back(entry);
      } catch (const Error& error) {
        ASSERT_EQ(error.Number(), 457);
      }
      if (random() % 100 == 0) list.Contains("in between");
    }
    for (int number = 0; number < 30 && !entries.empty(); ++number) {
      const ListEntry& entry = entries[random() % entries.size()];
      const std::string text = number % 3 == 0 ? word() + word() + word() : text_like(entry.patterns.front());
      std::optional<std::size_t> expected;
      Scan(text, entries, expected) ? ++hits : ++misses;
      ASSERT_EQ(list.Contains(text), expected.has_value()) << text;
      ASSERT_EQ(list.Find(text), expected) << text;
    }
  }
  EXPECT_GT(hits, 400);
  EXPECT_GT(misses, 200);
}

}  // namespace
}  // namespace trabex
