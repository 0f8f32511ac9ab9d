#include "net/byte_queue.h"

#include <gtest/gtest.h>

#include <string>

namespace trabex {
namespace {

std::string Pattern(std::size_t count, std::size_t start = 0) {
  std::string text;
  for (std::size_t i = 0; i < count; ++i) text += static_cast<char>('a' + (start + i) % 23);
  return text;
}

TEST(ByteQueueTest, GivesBytesInTheirOrder) {
  ByteQueue queue;
  EXPECT_TRUE(queue.Empty());
  EXPECT_EQ(queue.View(), "");
  queue.Append("hello ");
  queue.Append("");
  queue.Append("world");
  EXPECT_EQ(queue.View(), "hello world");
  EXPECT_EQ(queue.Size(), 11U);
  queue.RemoveFront(6);
  EXPECT_EQ(queue.View(), "world");
  queue.Append("!");
  EXPECT_EQ(queue.View(), "world!");
  queue.RemoveFront(0);
  queue.RemoveFront(6);
  EXPECT_TRUE(queue.Empty());
}

TEST(ByteQueueTest, HoldsNoMemoryWhenEmpty) {
  ByteQueue queue;
  EXPECT_EQ(queue.Capacity(), 0U);
  queue.Append("x");
  EXPECT_GT(queue.Capacity(), 0U);
  queue.RemoveFront(1);
  EXPECT_EQ(queue.Capacity(), 0U);
  queue.Append(Pattern(1000));
  queue.Clear();
  EXPECT_EQ(queue.Capacity(), 0U);
  EXPECT_TRUE(queue.Empty());
}

TEST(ByteQueueTest, GivesBackMostOfABlockThatHasBecomeFarTooLarge) {
  ByteQueue queue;
  queue.Append(Pattern(1 << 20));
  queue.RemoveFront((1 << 20) - 10);
  for (int i = 0; i < 1000 && queue.Capacity() > 4096; ++i) queue.Append("x");
  EXPECT_LE(queue.Capacity(), 4096U);
}

TEST(ByteQueueTest, MovesItsContentTogetherWithItsMemory) {
  ByteQueue queue;
  queue.Append("abcdef");
  queue.RemoveFront(2);
  ByteQueue other(std::move(queue));
  EXPECT_EQ(other.View(), "cdef");
  EXPECT_TRUE(queue.Empty());  // as the header promises
  EXPECT_EQ(queue.Capacity(), 0U);
  queue.Append("new");
  other = std::move(queue);
  EXPECT_EQ(other.View(), "new");
}

TEST(ByteQueueTest, AQueueThatNeverEmptiesStaysWithinABoundAndKeepsItsOrder) {
  ByteQueue queue;
  std::size_t in = 0;
  std::size_t out = 0;
  for (int round = 0; round < 20000; ++round) {
    const std::size_t put = 1 + static_cast<std::size_t>(round * 7919) % 97;
    queue.Append(Pattern(put, in));
    in += put;
    const std::size_t take = queue.Size() > 200 ? queue.Size() - 100 : queue.Size() / 2;
    ASSERT_EQ(queue.View().substr(0, take), Pattern(take, out));
    queue.RemoveFront(take);
    out += take;
    ASSERT_LE(queue.Capacity(), 1024U);
  }
  EXPECT_EQ(queue.Size(), in - out);
}

TEST(ByteQueueTest, TakingAwayManySmallPiecesOfALargeContentIsCheap) {
  // Quadratic work would take minutes.
  ByteQueue queue;
  const std::size_t size = 8 << 20;
  queue.Append(std::string(size, 'x'));
  for (std::size_t i = 0; i < size / 4; ++i) {
    queue.RemoveFront(2);
    queue.Append("y");
  }
  EXPECT_EQ(queue.Size(), size - size / 4);
}

}  // namespace
}  // namespace trabex
