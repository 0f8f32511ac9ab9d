#include "net/receive_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace trabex {
namespace {

class ReceiveBufferTest : public testing::Test {
 protected:
  // As if `text` came for the object of `queue`, which takes `limit` bytes at most.
  void Receive(ByteQueue& queue, std::string_view text, std::size_t limit) {
    const std::span<char> space = buffer.Space(queue, limit);
    ASSERT_LE(space.size(), limit);
    ASSERT_GE(space.size(), text.size());
    std::copy(text.begin(), text.end(), space.begin());
    buffer.Add(queue, text.size());
  }
  void Receive(ByteQueue& queue, std::string_view text) { Receive(queue, text, text.size()); }

  ReceiveBuffer buffer;
  ByteQueue one;
  ByteQueue two;
};

TEST_F(ReceiveBufferTest, BytesThatAreConsumedBeforeAnotherReadsTouchNoQueue) {
  for (ByteQueue* const queue : {&one, &two, &one}) {
    Receive(*queue, "first ", 100);
    Receive(*queue, "second", 100);
    EXPECT_EQ(buffer.View(*queue), "first second");
    buffer.Consume(*queue, 6);
    EXPECT_EQ(buffer.View(*queue), "second");
    buffer.Consume(*queue, 6);
    EXPECT_EQ(buffer.View(*queue), "");
    EXPECT_EQ(one.Capacity() + two.Capacity(), 0U);
  }
  EXPECT_EQ(buffer.CopiedBytes(), 0U);
}

TEST_F(ReceiveBufferTest, ALeftOverMovesToItsQueueWhenAnotherReadsAndBackAfterwards) {
  Receive(one, "GET left");
  buffer.Consume(one, 4);
  EXPECT_EQ(one.Capacity(), 0U);
  Receive(two, "other");
  EXPECT_EQ(one.View(), "left");
  EXPECT_EQ(buffer.View(one), "left");
  EXPECT_EQ(buffer.View(two), "other");
  Receive(one, " over");
  EXPECT_EQ(buffer.View(one), "left over");
  EXPECT_EQ(one.Capacity(), 0U);
  EXPECT_EQ(buffer.View(two), "other");
  EXPECT_EQ(two.View(), "other");
  buffer.Consume(two, 5);
  EXPECT_EQ(two.Capacity(), 0U);
}

TEST_F(ReceiveBufferTest, ConsumingFromAQueueLeavesTheRestThere) {
  Receive(one, "abcdef");
  Receive(two, "x");
  buffer.Consume(one, 2);
  EXPECT_EQ(buffer.View(one), "cdef");
  EXPECT_EQ(buffer.View(two), "x");
}

TEST_F(ReceiveBufferTest, WhatIsDiscardedIsGoneWhereverItLies) {
  Receive(one, "in the block");
  buffer.Discard(one);
  EXPECT_EQ(buffer.View(one), "");
  Receive(one, "in the queue");
  Receive(two, "x");
  buffer.Discard(one);
  EXPECT_EQ(buffer.View(one), "");
  EXPECT_EQ(buffer.View(two), "x");
}

TEST_F(ReceiveBufferTest, TheWholeBlockIsThereAlthoughSomethingAtItsFrontWasConsumed) {
  const std::string full(ReceiveBuffer::kCapacity, 'f');
  Receive(one, full);
  buffer.Consume(one, full.size() - 3);
  Receive(one, std::string(full.size() - 3, 'g'));
  EXPECT_TRUE(buffer.View(one) == "fff" + std::string(full.size() - 3, 'g'));
  EXPECT_EQ(one.Capacity(), 0U);
}

TEST_F(ReceiveBufferTest, MoreThanTheBlockTakesGoesIntoTheQueue) {
  std::string all(ReceiveBuffer::kCapacity, 'a');
  Receive(one, all, 3 * ReceiveBuffer::kCapacity);
  EXPECT_EQ(one.Capacity(), 0U);
  for (const char c : {'b', 'c'}) {
    const std::string more(ReceiveBuffer::kCapacity, c);
    Receive(one, more, 3 * ReceiveBuffer::kCapacity);
    all += more;
    EXPECT_TRUE(buffer.View(one) == all);
  }
  Receive(two, "x");
  EXPECT_TRUE(buffer.View(one) == all);
  buffer.Consume(one, 2 * ReceiveBuffer::kCapacity + 1);
  Receive(one, "d");
  EXPECT_TRUE(buffer.View(one) == std::string(ReceiveBuffer::kCapacity - 1, 'c') + "d");
}

// Against a plain model: any order of calls of several readers.
TEST_F(ReceiveBufferTest, AnyOrderGivesEachReaderItsOwnBytes) {
  struct Reader {
    ByteQueue queue;
    std::string expected;
  };
  Reader readers[3];
  std::uint32_t state = 1;
  const auto random = [&](std::size_t below) {
    state = state * 1664525 + 1013904223;
    return (state >> 8) % below;
  };
  for (int step = 0; step < 3000; ++step) {
    Reader& reader = readers[random(3)];
    switch (random(5)) {
      case 0:
      case 1: {
        const std::span<char> space = buffer.Space(reader.queue, 1 + random(random(10) == 0 ? 100000 : 300));
        const std::size_t count = random(space.size() + 1);
        std::fill_n(space.begin(), count, static_cast<char>(step));
        buffer.Add(reader.queue, count);
        reader.expected.append(count, static_cast<char>(step));
        break;
      }
      case 2:
      case 3: {
        const std::size_t count = random(reader.expected.size() + 1);
        buffer.Consume(reader.queue, count);
        reader.expected.erase(0, count);
        break;
      }
      default:
        if (random(20) == 0) {
          buffer.Discard(reader.queue);
          reader.expected.clear();
        }
    }
    for (const Reader& each : readers) ASSERT_TRUE(buffer.View(each.queue) == each.expected) << step;
  }
}

}  // namespace
}  // namespace trabex
