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

constexpr std::int32_t kMax = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t kMin = std::numeric_limits<std::int32_t>::min();

TEST(GreyListingRecord, CountsAttemptsAwayFromZero) {
  const std::pair<std::int32_t, std::int32_t> cases[] = {
      {0, 1}, {1, 2}, {kMax - 1, kMax}, {kMax, kMax}, {-1, -2}, {-2, -3}, {kMin + 1, kMin}, {kMin, kMin},
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
  EXPECT_EQ(cGreyListingData("key", 2, 1, kMin).Attempts(), 2147483648);
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
  database.BeginSweep(10);
  EXPECT_TRUE(database.SweepSome(1));
  EXPECT_EQ(database.Count(), 3U);
  EXPECT_TRUE(database.SweepSome(1));
  EXPECT_EQ(database.Count(), 3U);
  // What comes and what is renewed between two steps stays.
  database.Add({"e", 12, 1, -1});
  database.Find("d")->SetExpireAt(12);
  EXPECT_FALSE(database.SweepSome(10));
  EXPECT_EQ(Plain(database),
            (std::vector<PlainRecord>{{"b", 11, 1, -1}, {"d", 12, 1, -1}, {"e", 12, 1, -1}}));
}

TEST(GreyListingDatabase, GivesItsMemoryBackInParts) {
  GreyListingDatabase database;
  for (int i = 0; i < 5000; ++i) database.Add({"n" + std::to_string(i) + " s r", 2, 1, i % 2});
  int calls = 1;
  while (database.FreeSome(2)) {
    EXPECT_EQ(database.Count(), 0U);
    ++calls;
  }
  EXPECT_EQ(calls, 3);
  database.Add({"n s r", 2, 1, 1});
  EXPECT_EQ(database.Count(), 1U);
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

using Keys = std::vector<std::string>;

// What was dropped by which limit.
std::string TakeDropped(GreyListingDatabase& database) {
  const DroppedPending dropped = database.TakeDropped();
  return std::to_string(dropped.by_limit_in_all) + " in all, " +
         std::to_string(dropped.by_limit_per_network) + " per network";
}

void AddPending(GreyListingDatabase& database, const Keys& keys) {
  for (const std::string& key : keys) database.Add({key, 100, 1, -1});
}

TEST(PendingRecords, OneMoreDropsTheOldestOfItsNetwork) {
  GreyListingDatabase database;
  database.SetLimits({.in_all = 100, .per_network = 2});
  AddPending(database, {"10.1.2 a", "10.1.3 a", "10.1.2 b", "10.1.20 a"});
  EXPECT_EQ(TakeDropped(database), "0 in all, 0 per network");
  EXPECT_EQ(database.PendingCount(), 4U);
  AddPending(database, {"10.1.2 c"});
  EXPECT_EQ(KeysOf(database), (Keys{"10.1.3 a", "10.1.2 b", "10.1.20 a", "10.1.2 c"}));
  EXPECT_EQ(database.Find("10.1.2 a"), nullptr);
  EXPECT_EQ(TakeDropped(database), "0 in all, 1 per network");
  EXPECT_EQ(TakeDropped(database), "0 in all, 0 per network");
  EXPECT_EQ(database.PendingCount(), 4U);
}

TEST(PendingRecords, OneMoreDropsTheOldestOfAll) {
  GreyListingDatabase database;
  database.SetLimits({.in_all = 3, .per_network = 2});
  AddPending(database, {"10.1.1 a", "10.1.2 a", "10.1.3 a", "10.1.4 a"});
  EXPECT_EQ(KeysOf(database), (Keys{"10.1.2 a", "10.1.3 a", "10.1.4 a"}));
  EXPECT_EQ(TakeDropped(database), "1 in all, 0 per network");
  // What its own network gives up is room enough.
  AddPending(database, {"10.1.3 b", "10.1.3 c"});
  EXPECT_EQ(KeysOf(database), (Keys{"10.1.4 a", "10.1.3 b", "10.1.3 c"}));
  EXPECT_EQ(TakeDropped(database), "1 in all, 1 per network");
}

// Whatever the dates say: the clock may have been set back.
TEST(PendingRecords, TheOldestIsTheOneAddedFirst) {
  GreyListingDatabase database;
  database.SetLimits({.in_all = 2, .per_network = 2});
  AddAll(database, {{"n a", 1000, 900, -1}, {"n b", 500, 400, -1}, {"n c", 700, 600, -1}});
  EXPECT_EQ(KeysOf(database), (Keys{"n b", "n c"}));
  // An attempt makes it no younger.
  database.Find("n b")->IncrementAttempts();
  AddPending(database, {"n d"});
  EXPECT_EQ(KeysOf(database), (Keys{"n c", "n d"}));
}

TEST(PendingRecords, AcceptedOnesNeverGo) {
  GreyListingDatabase database;
  database.SetLimits({.in_all = 2, .per_network = 2});
  AddAll(database, {{"n accepted", 100, 1, 1}, {"n a", 100, 1, -1}, {"n b", 100, 1, 0}});
  EXPECT_EQ(database.PendingCount(), 2U);
  // One that is accepted makes room.
  cGreyListingData* record = database.Find("n a");
  record->SetCount(2);
  database.Accepted(*record);
  EXPECT_EQ(database.PendingCount(), 1U);
  database.Accepted(*record);
  EXPECT_EQ(database.PendingCount(), 1U);
  AddPending(database, {"n c"});
  EXPECT_EQ(TakeDropped(database), "0 in all, 0 per network");
  AddPending(database, {"n d", "n e"});
  EXPECT_EQ(KeysOf(database), (Keys{"n accepted", "n a", "n d", "n e"}));
  // Accepted ones need no room.
  AddAll(database, {{"n f", 100, 1, 5}, {"n g", 100, 1, 5}});
  EXPECT_EQ(database.Count(), 6U);
  EXPECT_EQ(TakeDropped(database), "0 in all, 2 per network");
}

TEST(PendingRecords, ExpiredOnesLeaveTheQueue) {
  GreyListingDatabase database;
  database.SetLimits({.in_all = 3, .per_network = 2});
  AddAll(database, {{"n a", 5, 1, -1}, {"n b", 20, 1, -1}, {"m a", 5, 1, -1}});
  EXPECT_EQ(database.RemoveExpired(10), 2U);
  EXPECT_EQ(database.PendingCount(), 1U);
  AddPending(database, {"n c", "m b"});
  EXPECT_EQ(KeysOf(database), (Keys{"n b", "n c", "m b"}));
  EXPECT_EQ(TakeDropped(database), "0 in all, 0 per network");
}

TEST(PendingRecords, LoweredLimitsActOnTheNextAdditions) {
  constexpr std::size_t kMany = GreyListingDatabase::kMaxDroppedAtOnce * 5 / 2;
  GreyListingDatabase database;
  for (std::size_t i = 0; i < kMany; ++i) AddPending(database, {"n " + std::to_string(i)});
  AddPending(database, {"m a", "m b", "m c"});
  database.SetLimits({.in_all = 100, .per_network = 2});
  // Some at a time, so that no decision takes long.
  AddPending(database, {"n x"});
  EXPECT_EQ(database.PendingCount(), kMany + 4 - 1000);
  AddPending(database, {"m d"});
  EXPECT_EQ(database.Find("m b"), nullptr);
  EXPECT_NE(database.Find("m c"), nullptr);
  EXPECT_EQ(database.PendingCount(), kMany + 5 - 2000);
  AddPending(database, {"n y"});
  EXPECT_EQ(KeysOf(database), (Keys{"m c", "n x", "m d", "n y"}));
  EXPECT_EQ(TakeDropped(database), "998 in all, 1504 per network");
}

TEST(PendingRecords, WhatASweepComesToMayBeDropped) {
  GreyListingDatabase database;
  database.SetLimits({.in_all = 4, .per_network = 4});
  AddAll(database, {{"n a", 20, 1, -1}, {"n b", 20, 1, -1}, {"n c", 20, 1, -1}, {"n d", 5, 1, -1}});
  database.BeginSweep(10);
  EXPECT_TRUE(database.SweepSome(1));
  AddPending(database, {"n e", "n f"});  // drops a and b, which it comes to next
  EXPECT_FALSE(database.SweepSome(100));
  EXPECT_EQ(KeysOf(database), (Keys{"n c", "n e", "n f"}));
  database.BeginSweep(10);
  database.Clear();
  EXPECT_FALSE(database.SweepSome(1));
}

TEST(PendingRecords, ClearedAndMovedOnesAreCountedToo) {
  GreyListingDatabase database;
  database.SetLimits({.in_all = 2, .per_network = 2});
  AddPending(database, {"n a", "n b"});
  database.Clear();
  EXPECT_EQ(database.PendingCount(), 0U);
  AddPending(database, {"n a", "n b"});
  GreyListingDatabase moved;
  moved = std::move(database);
  AddPending(moved, {"n c"});
  EXPECT_EQ(KeysOf(moved), (Keys{"n b", "n c"}));
}

// Against a plain list, in any sequence of additions, acceptances and removals.
TEST(PendingRecords, AreRightAfterAnySequence) {
  std::mt19937 random(8);
  const auto network_of = [](const PlainRecord& record) { return std::get<0>(record).substr(0, 2); };
  const auto pending = [](const PlainRecord& record) { return std::get<3>(record) <= 0; };
  GreyListingDatabase database;
  std::vector<PlainRecord> expected;
  PendingLimits limits{.in_all = 60, .per_network = 15};
  database.SetLimits(limits);
  // Drops the first pending one, of `network` unless that is empty, while there are `limit` of them.
  const auto make_room = [&](const std::string& network, std::size_t limit) {
    const auto counts = [&](const PlainRecord& record) {
      return pending(record) && (network.empty() || network_of(record) == network);
    };
    while (static_cast<std::size_t>(std::count_if(expected.begin(), expected.end(), counts)) >= limit) {
      expected.erase(std::find_if(expected.begin(), expected.end(), counts));
    }
  };
  DateTime now = 0;
  for (int step = 0; step < 4000; ++step) {
    if (step % 500 == 499) {
      limits = {.in_all = 1 + random() % 80, .per_network = 1 + random() % 30};
      database.SetLimits(limits);
    }
    const std::string key = std::to_string(random() % 10) + "  " + std::to_string(random() % 60);
    const auto known = std::find_if(expected.begin(), expected.end(),
                                    [&](const PlainRecord& record) { return std::get<0>(record) == key; });
    if (known == expected.end()) {
      const std::int32_t count = random() % 10 == 0 ? 1 : -1;
      const PlainRecord record = {key, now + static_cast<double>(random() % 3000), now, count};
      if (count < 0) {
        make_room(network_of(record), limits.per_network);
        make_room("", limits.in_all);
      }
      expected.push_back(record);
      AddAll(database, {record});
    } else if (random() % 4 == 0) {
      std::get<3>(*known) = 7;
      cGreyListingData* record = database.Find(key);
      ASSERT_NE(record, nullptr) << step;
      record->SetCount(7);
      database.Accepted(*record);
    }
    if (random() % 50 == 0) {
      now += static_cast<double>(random() % 200);
      database.RemoveExpired(now);
      std::erase_if(expected, [&](const PlainRecord& record) { return std::get<1>(record) <= now; });
    }
    ASSERT_EQ(Plain(database), expected) << step;
    ASSERT_EQ(database.PendingCount(),
              static_cast<std::size_t>(std::count_if(expected.begin(), expected.end(), pending)));
  }
}

TEST(GreyListingDatabase, ARemovedRecordGivesItsMemoryBack) {
  if (!CountsMemory()) GTEST_SKIP() << "a sanitizer's memory says nothing";
  GreyListingDatabase database;
  const std::size_t before = HeapInUse();
  for (int i = 0; i < 1000; ++i) database.Add({std::string(20000, 'k') + std::to_string(i), 5, 1, -1});
  EXPECT_EQ(database.RemoveExpired(10), 1000U);
  EXPECT_LT(HeapInUse(), before + 1'000'000);
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
