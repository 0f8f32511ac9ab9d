// Sockets when there is no memory.
#include <functional>
#include <string>

#include "support/counted_allocations.h"
#include "unit/platform/linux/sockets_fixture.h"

namespace trabex {
namespace {

// A receive that leaves something behind asks for the next notification, and that takes room in a list.
TEST_F(LinuxSocketsTest, WhatIsLeftIsToldOfThoughThereWasNoMemoryToAskForIt) {
  ConnectRaw();
  ASSERT_EQ(sockets.Watch(ours, &sink), 0);
  const std::string sent(100, 'x');
  ASSERT_EQ(send(raw, sent.data(), sent.size(), 0), static_cast<ssize_t>(sent.size()));
  ASSERT_TRUE(RunUntil(loop, [&] { return sink.reads == 1; }));
  std::size_t got = 0;
  char room[10];
  {
    const FailedAllocation failure(0, FailedAllocation::kAll);
    EXPECT_EQ(sockets.Receive(ours, room, got), 0);
    // Otherwise the list has been used before, and this shows nothing.
    EXPECT_TRUE(failure.HasFailed());
  }
  EXPECT_EQ(got, sizeof room);
  EXPECT_TRUE(RunUntil(loop, [&] { return sink.reads == 2; }));
}

// What is sent in an iteration is collected, and that takes room; without it the kernel gets each piece at once.
class WithoutMemoryToCollect : public LinuxSocketsTest, public testing::WithParamInterface<std::size_t> {};

TEST_P(WithoutMemoryToCollect, WhatIsSentComesInItsOrder) {
  ConnectRaw();
  const std::string first(20, 'a');
  const std::string second(1000, 'b');
  loop.Post([&] {
    const FailedAllocation failure(GetParam(), FailedAllocation::kAll);
    for (const std::string& text : {std::cref(first), std::cref(second), std::cref(first)}) {
      std::size_t sent = 0;
      EXPECT_EQ(sockets.Send(ours, text, sent), 0);
      EXPECT_EQ(sent, text.size());
    }
    EXPECT_TRUE(failure.HasFailed());
  });
  loop.RunOnce(Milliseconds{0});
  std::string all;
  EXPECT_TRUE(RunUntil(loop, [&] {
    char room[4096];
    const ssize_t count = recv(raw, room, sizeof room, MSG_DONTWAIT);
    if (count > 0) all.append(room, static_cast<std::size_t>(count));
    return all.size() >= 2 * first.size() + second.size();
  }));
  EXPECT_EQ(all, first + second + first);
}

// Places for the socket in three lists, and its bytes as they grow.
INSTANTIATE_TEST_SUITE_P(EachAllocation, WithoutMemoryToCollect, testing::Range<std::size_t>(0, 5));

}  // namespace
}  // namespace trabex
