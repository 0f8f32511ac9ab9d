#include "greylist/pending_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "greylist_support.h"

namespace trabex {
namespace {

constexpr std::uint32_t kNone = PendingQueue::kNone;

// Takes everything out, the oldest first.
std::vector<std::uint32_t> Emptied(PendingQueue& queue, std::vector<std::uint32_t> entries_by_number) {
  std::vector<std::uint32_t> order;
  while (queue.Oldest() != kNone) {
    order.push_back(queue.Oldest());
    queue.Remove(entries_by_number[queue.Oldest()]);
  }
  return order;
}

TEST(PendingQueue, AnEmptyOneHasNoFirst) {
  const PendingQueue queue;
  EXPECT_EQ(queue.Count(), 0U);
  EXPECT_EQ(queue.Oldest(), kNone);
}

TEST(PendingQueue, KeepsTheOrderOfArrival) {
  PendingQueue queue;
  std::vector<std::uint32_t> entries;
  for (std::uint32_t number = 0; number < 6; ++number) entries.push_back(queue.Add(number % 2, number));
  EXPECT_EQ(queue.Count(), 6U);
  EXPECT_EQ(queue.CountBeside(entries[2]), 3U);
  EXPECT_EQ(queue.OldestBeside(entries[2]), 0U);
  EXPECT_EQ(queue.OldestBeside(entries[1]), 1U);
  // From the front, the middle and the end.
  queue.Remove(entries[0]);
  queue.Remove(entries[3]);
  queue.Remove(entries[5]);
  EXPECT_EQ(queue.OldestBeside(entries[4]), 2U);
  EXPECT_EQ(queue.CountBeside(entries[4]), 2U);
  EXPECT_EQ(queue.OldestBeside(entries[1]), 1U);
  EXPECT_EQ(queue.CountBeside(entries[1]), 1U);
  EXPECT_EQ(Emptied(queue, entries), (std::vector<std::uint32_t>{1, 2, 4}));
  EXPECT_EQ(queue.Count(), 0U);
}

// Hashes of which the index looks at the same part only.
TEST(PendingQueue, DistinguishesNetworksByTheWholeHash) {
  PendingQueue queue;
  const std::uint32_t first = queue.Add(0x0100000000000007, 1);
  const std::uint32_t second = queue.Add(0x0100000100000007, 2);
  EXPECT_EQ(queue.OldestBeside(first), 1U);
  EXPECT_EQ(queue.OldestBeside(second), 2U);
}

TEST(PendingQueue, ClearedIsEmpty) {
  PendingQueue queue;
  for (std::uint32_t number = 0; number < 1000; ++number) queue.Add(number % 7, number);
  queue.Clear();
  EXPECT_EQ(queue.Count(), 0U);
  EXPECT_EQ(queue.Oldest(), kNone);
  const std::uint32_t entry = queue.Add(3, 5);
  EXPECT_EQ(queue.OldestBeside(entry), 5U);
  EXPECT_EQ(queue.CountBeside(entry), 1U);
}

// As with clients that come from another network each time.
TEST(PendingQueue, UsesThePlacesOfThoseThatLeftAgain) {
  if (!CountsMemory()) GTEST_SKIP() << "a sanitizer's memory says nothing";
  PendingQueue queue;
  const std::size_t before = HeapInUse();
  for (std::uint32_t number = 0; number < 200'000; ++number) queue.Remove(queue.Add(number, number));
  EXPECT_LT(HeapInUse(), before + 100'000);
}

// Against a plain list, in any sequence of arrivals and departures.
TEST(PendingQueue, IsRightAfterAnySequence) {
  struct Waiting {
    std::uint64_t network;
    std::uint32_t number;
    std::uint32_t entry;
  };
  std::mt19937 random(11);
  PendingQueue queue;
  std::vector<Waiting> expected;
  for (std::uint32_t step = 0; step < 20000; ++step) {
    // Grows for a while, then shrinks, again and again.
    if (expected.empty() || random() % 100 < (step / 500 % 2 == 0 ? 70U : 30U)) {
      const std::uint64_t network = random() % 20;
      expected.push_back({network, step, queue.Add(network, step)});
    } else {
      const auto gone = expected.begin() + static_cast<std::ptrdiff_t>(random() % expected.size());
      queue.Remove(gone->entry);
      expected.erase(gone);
    }
    ASSERT_EQ(queue.Count(), expected.size()) << step;
    ASSERT_EQ(queue.Oldest(), expected.empty() ? kNone : expected.front().number) << step;
    if (expected.empty()) continue;
    const Waiting& one = expected[random() % expected.size()];
    const auto of_network = [&one](const Waiting& waiting) { return waiting.network == one.network; };
    ASSERT_EQ(queue.OldestBeside(one.entry),
              std::find_if(expected.begin(), expected.end(), of_network)->number)
        << step;
    ASSERT_EQ(queue.CountBeside(one.entry),
              static_cast<std::size_t>(std::count_if(expected.begin(), expected.end(), of_network)))
        << step;
  }
}

}  // namespace
}  // namespace trabex
