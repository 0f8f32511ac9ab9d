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
TEST_F(LinuxSocketsTest, WhatIsSentWithoutMemoryComesInItsOrder) {
  ConnectRaw();
  const std::string first(20, 'a');
  const std::string second(1000, 'b');
  std::size_t failures = 0;
  for (std::size_t before = 0; before < 8; ++before) {
    SCOPED_TRACE("allocation " + std::to_string(before));
    loop.Post([&] {
      const FailedAllocation failure(before, FailedAllocation::kAll);
      for (const std::string& text : {std::cref(first), std::cref(second), std::cref(first)}) {
        std::size_t sent = 0;
        EXPECT_EQ(sockets.Send(ours, text, sent), 0);
        EXPECT_EQ(sent, text.size());
      }
      if (failure.HasFailed()) ++failures;
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
  EXPECT_GE(failures, 2U);
}

}  // namespace
}  // namespace trabex
