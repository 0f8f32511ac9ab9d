#include "report/recent_refusals.h"

#include <gtest/gtest.h>

#include <algorithm>

#include <string>

namespace trabex {
namespace {

void Add(RecentRefusals& refusals, std::int64_t time, bool delayed = false) {
  RefusalRecord& record = refusals.Add(delayed);
  record.time = time;
  record.from.assign("somebody.with.a.long.name" + std::to_string(time) + "@example.org");
}

TEST(RecentRefusals, TheLatestComesFirst) {
  RecentRefusals refusals;
  EXPECT_EQ(refusals.size(), 0U);
  EXPECT_EQ(refusals.Count(), 0U);
  for (std::int64_t i = 1; i <= 3; ++i) Add(refusals, i, i == 2);
  ASSERT_EQ(refusals.size(), 3U);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(refusals[i].time, 3 - static_cast<std::int64_t>(i));
    EXPECT_EQ(refusals[i].delayed, i == 1);
  }
  EXPECT_EQ(refusals.Count(), 3U);
  EXPECT_EQ(refusals.DelayedCount(), 1U);
}

// At each place where the oldest one may be.
TEST(RecentRefusals, TheOldestOnesGo) {
  RecentRefusals refusals;
  constexpr auto kMax = static_cast<std::int64_t>(RecentRefusals::kMax);
  for (std::int64_t i = 1; i <= 2 * kMax + 7; ++i) {
    Add(refusals, i, i % 2 == 0);
    ASSERT_EQ(refusals.Count(), static_cast<std::uint64_t>(i));
    ASSERT_EQ(refusals.size(), static_cast<std::size_t>(std::min(i, kMax)));
    ASSERT_EQ(refusals[0].time, i);
    ASSERT_EQ(refusals[refusals.size() - 1].time, std::max<std::int64_t>(1, i - kMax + 1));
    ASSERT_EQ(refusals[refusals.size() / 2].time, i - static_cast<std::int64_t>(refusals.size() / 2));
    ASSERT_EQ(refusals[0].delayed, i % 2 == 0);
  }
  EXPECT_EQ(refusals.DelayedCount(), static_cast<std::uint64_t>(kMax + 3));
}

}  // namespace
}  // namespace trabex
