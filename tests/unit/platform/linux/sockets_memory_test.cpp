// Sockets when there is no memory.
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

}  // namespace
}  // namespace trabex
