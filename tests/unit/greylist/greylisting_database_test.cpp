#include "greylist/greylisting_database.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "unit/greylist/greylist_support.h"

namespace trabex {
namespace {

constexpr std::int32_t kMost = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t kLeast = std::numeric_limits<std::int32_t>::min();

TEST(GreyListingRecord, CountsAttemptsAwayFromZero) {
  const std::pair<std::int32_t, std::int32_t> cases[] = {
      {0, 1},   {1, 2},   {kMost - 1, kMost},   {kMost, kMost},
      {-1, -2}, {-2, -3}, {kLeast + 1, kLeast}, {kLeast, kLeast},
  };
  for (const auto& [before, after] : cases) {
    cGreyListingData record("key", 2, 1, before);
    record.IncrementAttempts();
    EXPECT_EQ(record.Count(), after) << before;
  }
}

TEST(GreyListingRecord, AttemptsAreTheMagnitude) {
  EXPECT_EQ(cGreyListingData("key", 2, 1, -3).Attempts(), 3);
  EXPECT_EQ(cGreyListingData("key", 2, 1, 3).Attempts(), 3);
  EXPECT_EQ(cGreyListingData("key", 2, 1, kLeast).Attempts(), 2147483648);
}

TEST(GreyListingRecord, HoldsWhatIsSet) {
  cGreyListingData record("key", 2, 1, -1);
  record.SetExpireAt(20);
  record.SetDelayedUntil(10);
  record.SetCount(7);
  EXPECT_EQ(record.Key(), "key");
  EXPECT_EQ(record.ExpireAt(), 20);
  EXPECT_EQ(record.DelayedUntil(), 10);
  EXPECT_EQ(record.Count(), 7);
}

TEST(GreyListingDatabase, KeepsTheOrderOfAdding) {
  GreyListingDatabase database;
  const std::vector<PlainRecord> records = {{"c", 5, 1, -1}, {"a", 3, 1, -2}, {"b", 4, 1, 3}};
  AddAll(database, records);
  EXPECT_EQ(Plain(database), records);
  EXPECT_EQ(database.Count(), 3U);
  // Also when a record between has gone and its key comes again.
  EXPECT_EQ(database.RemoveExpired(3), 1U);
  database.Add({"a", 9, 1, -1});
  EXPECT_EQ(Plain(database), (std::vector<PlainRecord>{{"c", 5, 1, -1}, {"b", 4, 1, 3}, {"a", 9, 1, -1}}));
}

TEST(GreyListingDatabase, FindsExactlyTheKey) {
  GreyListingDatabase database;
  AddAll(database, {{"key", 2, 1, -1}, {"", 2, 1, -2}, {std::string("key\0", 4), 2, 1, -3}});
  ASSERT_NE(database.Find("key"), nullptr);
  EXPECT_EQ(database.Find("key")->Count(), -1);
  ASSERT_NE(database.Find(""), nullptr);
  EXPECT_EQ(database.Find("")->Count(), -2);
  ASSERT_NE(database.Find(std::string_view("key\0", 4)), nullptr);
  EXPECT_EQ(database.Find(std::string_view("key\0", 4))->Count(), -3);
  EXPECT_EQ(database.Find("ke"), nullptr);
  EXPECT_EQ(database.Find("KEY"), nullptr);
}

TEST(GreyListingDatabase, RefusesASecondRecordOfAKey) {
  GreyListingDatabase database;
  database.Add({"key", 2, 1, -1});
  EXPECT_EQ(ErrorOf([&] {
              database.Add({"key", 3, 2, -2});
            }),
            "457 This key is already associated with an element of this collection");
  EXPECT_EQ(Plain(database), (std::vector<PlainRecord>{{"key", 2, 1, -1}}));
}

TEST(GreyListingDatabase, RemovesWhatHasReachedItsDate) {
  GreyListingDatabase database;
  AddAll(database, {{"past", 9, 1, -1}, {"now", 10, 1, -1}, {"later", 11, 1, -1}});
  EXPECT_EQ(database.RemoveExpired(10), 2U);
  EXPECT_EQ(Plain(database), (std::vector<PlainRecord>{{"later", 11, 1, -1}}));
  EXPECT_EQ(database.Find("past"), nullptr);
  EXPECT_EQ(database.Find("now"), nullptr);
  EXPECT_EQ(database.RemoveExpired(10), 0U);
}

TEST(GreyListingDatabase, SweepsInSteps) {
  GreyListingDatabase database;
  AddAll(database, {{"a", 9, 1, -1}, {"b", 11, 1, -1}, {"c", 9, 1, -1}, {"d", 9, 1, -1}});
  GreyListingDatabase::Sweep sweep(database, 10);
  EXPECT_TRUE(sweep.Step(1));
  EXPECT_EQ(database.Count(), 3U);
  EXPECT_TRUE(sweep.Step(1));
  EXPECT_EQ(database.Count(), 3U);
  // What comes and what is renewed between two steps stays.
  database.Add({"e", 12, 1, -1});
  database.Find("d")->SetExpireAt(12);
  EXPECT_FALSE(sweep.Step(10));
  EXPECT_EQ(Plain(database),
            (std::vector<PlainRecord>{{"b", 11, 1, -1}, {"d", 12, 1, -1}, {"e", 12, 1, -1}}));
}

TEST(GreyListingDatabase, ClearedIsEmpty) {
  GreyListingDatabase database;
  AddAll(database, SomeRecords("s", 1000));
  database.SetChanged(true);
  database.Clear();
  EXPECT_EQ(database.Count(), 0U);
  EXPECT_EQ(database.Find(std::get<0>(SomeRecords("s", 1)[0])), nullptr);
  EXPECT_TRUE(database.Changed());
  AddAll(database, SomeRecords("s", 10));
  EXPECT_EQ(Plain(database), SomeRecords("s", 10));
}

// Against a plain list of records, in any sequence of additions and removals.
TEST(GreyListingDatabase, IsRightAfterAnySequence) {
  std::mt19937 random(3);
  GreyListingDatabase database;
  std::vector<PlainRecord> expected;
  DateTime now = 0;
  for (int step = 0; step < 10000; ++step) {
    const std::string key = "key" + std::to_string(random() % 500);
    const bool known = std::any_of(expected.begin(), expected.end(),
                                   [&](const PlainRecord& record) { return std::get<0>(record) == key; });
    ASSERT_EQ(database.Find(key) != nullptr, known) << step;
    if (!known) {
      const DateTime expire_at = now + static_cast<double>(random() % 1000);
      database.Add({key, expire_at, now, step});
      expected.emplace_back(key, expire_at, now, step);
    }
    if (random() % 100 != 0) continue;
    now += static_cast<double>(random() % 20);
    database.RemoveExpired(now);
    std::erase_if(expected, [&](const PlainRecord& record) { return std::get<1>(record) <= now; });
    ASSERT_EQ(Plain(database), expected) << step;
    ASSERT_EQ(database.Count(), expected.size());
  }
}

TEST(GreyListingDatabase, MovedIsWhole) {
  GreyListingDatabase source;
  AddAll(source, SomeRecords("s", 1000));
  source.SetChanged(true);
  GreyListingDatabase database;
  database.Add({"old", 2, 1, -1});
  database = std::move(source);
  EXPECT_EQ(Plain(database), SomeRecords("s", 1000));
  EXPECT_TRUE(database.Changed());
  EXPECT_EQ(database.Find("old"), nullptr);
  for (const PlainRecord& record : SomeRecords("s", 1000)) {
    ASSERT_NE(database.Find(std::get<0>(record)), nullptr);
  }
}

}  // namespace
}  // namespace trabex
