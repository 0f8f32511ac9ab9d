#include "base/hash_index.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <vector>

namespace trabex {
namespace {

std::uint32_t FindNumber(const HashIndex& index, std::uint32_t hash, std::uint32_t number) {
  return index.Find(hash, [number](std::uint32_t candidate) { return candidate == number; });
}

TEST(HashIndex, AnEmptyOneFindsNothing) {
  HashIndex index;
  EXPECT_EQ(index.Find(0, [](std::uint32_t) { return true; }), HashIndex::kNone);
  index.Reserve(0);
  index.Reserve(1000);
  EXPECT_EQ(index.Find(0, [](std::uint32_t) { return true; }), HashIndex::kNone);
}

TEST(HashIndex, AsksAboutNumbersOfTheSameHashOnly) {
  HashIndex index;
  for (std::uint32_t number = 0; number < 100; ++number) index.Add(number % 10, number);
  std::vector<std::uint32_t> asked;
  EXPECT_EQ(index.Find(3,
                       [&](std::uint32_t number) {
                         asked.push_back(number);
                         return false;
                       }),
            HashIndex::kNone);
  EXPECT_EQ(asked.size(), 10U);
  for (const std::uint32_t number : asked) EXPECT_EQ(number % 10, 3U);
}

// Hashes at both ends of the table, so that numbers are pushed on and around its end.
TEST(HashIndex, IsRightAfterAnySequence) {
  std::mt19937 engine(5);
  const auto random = [&engine] { return static_cast<std::uint32_t>(engine()); };
  for (const std::uint32_t spread : {1U, 3U, 40U, 100000U}) {
    HashIndex index;
    std::map<std::uint32_t, std::uint32_t> added;  // number, hash
    for (std::uint32_t step = 0; step < 5000; ++step) {
      // Grows at first, shrinks at the end.
      if (added.empty() || random() % 5000 > step) {
        const std::uint32_t low = random() % spread;
        const std::uint32_t hash = random() % 2 == 0 ? low * 0x01234567 : 0xFFFFFFFF - low;
        if (random() % 100 == 0) index.Reserve(added.size() + 10);
        index.Add(hash, step);
        added.emplace(step, hash);
      } else {
        auto victim = added.lower_bound(random() % 5000);
        if (victim == added.end()) victim = added.begin();
        index.Remove(victim->second, victim->first);
        ASSERT_EQ(FindNumber(index, victim->second, victim->first), HashIndex::kNone);
        added.erase(victim);
      }
      if (step % 50 != 0) continue;
      for (const auto& [number, hash] : added) ASSERT_EQ(FindNumber(index, hash, number), number) << step;
    }
  }
}

}  // namespace
}  // namespace trabex
