#include "base/text_counts.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <utility>

namespace trabex {
namespace {

TEST(TextCounts, CountEachText) {
  TextCounts counts;
  EXPECT_EQ(counts.Size(), 0U);
  EXPECT_EQ(counts.Of(1, "a"), 0U);
  ++counts.Of(1, "a");
  counts.Of(1, "b") += 5;  // of the same hash
  ++counts.Of(2, "");
  ++counts.Of(1, "a");
  EXPECT_EQ(counts.Of(1, "a"), 2U);
  ASSERT_EQ(counts.Size(), 3U);
  EXPECT_EQ(counts.Text(0), "a");
  EXPECT_EQ(counts.Text(1), "b");
  EXPECT_EQ(counts.Text(2), "");
  EXPECT_EQ(counts.Count(0), 2U);
  EXPECT_EQ(counts.Count(1), 5U);
  EXPECT_EQ(counts.Count(2), 1U);
}

// Of all sizes, also those that fill a block or have one of their own.
TEST(TextCounts, KeepTextsOfAnySize) {
  std::mt19937_64 random(7);
  TextCounts counts;
  std::map<std::string, std::uint32_t> expected;
  for (int i = 0; i < 3000; ++i) {
    const std::size_t longest = i % 100 == 0 ? 200'000 : 200;
    const std::string text(random() % longest, static_cast<char>('a' + random() % 3));
    ++expected[text];
    ++counts.Of(std::hash<std::string>{}(text) % 1000, text);
  }
  TextCounts moved = std::move(counts);
  ASSERT_EQ(moved.Size(), expected.size());
  for (std::size_t i = 0; i < moved.Size(); ++i) {
    EXPECT_EQ(moved.Count(i), expected.at(std::string(moved.Text(i))));
  }
}

}  // namespace
}  // namespace trabex
