#include "base/key_index.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <utility>
#include <vector>

namespace trabex {
namespace {

std::uint32_t FindNumber(const KeyIndex& index, std::uint64_t hash, std::uint32_t number) {
  return index.Find(hash, [number](std::uint32_t candidate) { return candidate == number; });
}

TEST(KeyIndex, AnEmptyOneFindsNothing) {
  KeyIndex index;
  EXPECT_EQ(index.Find(0, [](std::uint32_t) { return true; }), KeyIndex::kNone);
  index.Reserve(1000);
  EXPECT_EQ(index.Find(0, [](std::uint32_t) { return true; }), KeyIndex::kNone);
}

TEST(KeyIndex, DistinguishesEqualHashes) {
  KeyIndex index;
  for (std::uint32_t number = 0; number < 20; ++number) index.Add(7, number);
  for (std::uint32_t number = 0; number < 20; ++number) EXPECT_EQ(FindNumber(index, 7, number), number);
  EXPECT_EQ(FindNumber(index, 7, 20), KeyIndex::kNone);
  EXPECT_EQ(index.Find(8, [](std::uint32_t) { return true; }), KeyIndex::kNone);
  index.Remove(7, 10);
  EXPECT_EQ(FindNumber(index, 7, 10), KeyIndex::kNone);
  for (std::uint32_t number = 11; number < 20; ++number) EXPECT_EQ(FindNumber(index, 7, number), number);
}

// Few different hashes, also at both ends of a table, so that entries are pushed on and around its end.
TEST(KeyIndex, IsRightAfterAnySequence) {
  std::mt19937_64 random(5);
  for (const std::uint64_t spread : {1ULL, 3ULL, 40ULL, 100000ULL}) {
    KeyIndex index;
    std::map<std::uint32_t, std::uint64_t> added;  // number, hash
    const auto hash_of = [&] {
      const std::uint64_t low = random() % spread;
      const std::uint64_t tag = random() % 2 == 0 ? low * 0x01234567 : 0xFFFFFFFF - low;
      return (tag & 0xFFFFFFFF) | (random() % 2) << 56;
    };
    for (int step = 0; step < 20000; ++step) {
      // Grows at first, shrinks at the end.
      if (added.empty() || random() % 20000 > static_cast<std::uint64_t>(step)) {
        const auto number = static_cast<std::uint32_t>(step);
        const std::uint64_t hash = hash_of();
        if (added.size() > 300) continue;
        index.Add(hash, number);
        added.emplace(number, hash);
      } else {
        auto victim = added.lower_bound(static_cast<std::uint32_t>(random() % 20000));
        if (victim == added.end()) victim = added.begin();
        index.Remove(victim->second, victim->first);
        ASSERT_EQ(FindNumber(index, victim->second, victim->first), KeyIndex::kNone);
        added.erase(victim);
      }
      if (step % 50 != 0) continue;
      for (const auto& [number, hash] : added) ASSERT_EQ(FindNumber(index, hash, number), number) << step;
    }
  }
}

TEST(KeyIndex, GrowsAndIsCleared) {
  std::mt19937_64 random(6);
  for (const std::size_t reserved : {0U, 100U, 100000U}) {
    KeyIndex index;
    std::vector<std::uint64_t> hashes;
    for (std::uint32_t number = 0; number < 50000; ++number) {
      if (number == 500) index.Reserve(reserved);
      hashes.push_back(random());
      index.Add(hashes.back(), number);
    }
    for (std::uint32_t number = 0; number < 50000; ++number) {
      ASSERT_EQ(FindNumber(index, hashes[number], number), number);
    }
    index.Clear();
    for (std::uint32_t number = 0; number < 50000; ++number) {
      ASSERT_EQ(FindNumber(index, hashes[number], number), KeyIndex::kNone);
    }
  }
}

}  // namespace
}  // namespace trabex
