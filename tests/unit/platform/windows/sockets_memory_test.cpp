// Sockets when there is no memory.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>

#include "platform/clock.h"
#include "platform/sockets.h"
#include "support/counted_allocations.h"
#include "support/loop_runner.h"
#include "support/system_socket.h"

namespace trabex {
namespace {

class ReadCounter final : public SocketSink {
 public:
  void OnSocketEvent(SocketHandle /*socket*/, SocketEvent event, int /*error*/) override {
    if (event == SocketEvent::kRead) ++reads;
  }
  int reads = 0;
};

// What comes while nobody watches has its message then; whoever watches next is told because the socket is due, and to be
// due takes room in a list.
TEST(WindowsSocketsWithoutMemory, EachThatWasMadeDueIsLookedAt) {
  constexpr std::size_t kSockets = 40;
  SystemClock clock;
  EventLoop loop(clock);
  Sockets sockets(loop);
  SystemSocket sender(Transport::kUdp);
  std::array<SocketHandle, kSockets> receivers;
  std::array<ReadCounter, kSockets> before;
  for (std::size_t i = 0; i < kSockets; ++i) {
    Endpoint address;
    ASSERT_EQ(sockets.Open(Transport::kUdp, AddressFamily::kIPv4, receivers[i]), 0);
    ASSERT_EQ(sockets.Bind(receivers[i], {kIPv4Loopback, 0}), 0);
    ASSERT_EQ(sockets.LocalEndpoint(receivers[i], address), 0);
    ASSERT_EQ(sockets.Watch(receivers[i], &before[i]), 0);
    RunUntilIdle(loop);
    ASSERT_EQ(sockets.Watch(receivers[i], nullptr), 0);
    sender.SendTo("x", address);
  }
  RunUntilIdle(loop);
  std::array<ReadCounter, kSockets> after;
  {
    const FailedAllocation failure(0, FailedAllocation::kAll);
    for (std::size_t i = 0; i < kSockets; ++i) EXPECT_EQ(sockets.Watch(receivers[i], &after[i]), 0);
    // Otherwise the list has room for all, and this shows nothing.
    EXPECT_TRUE(failure.HasFailed());
  }
  EXPECT_TRUE(RunUntil(loop, [&] {
    return std::all_of(after.begin(), after.end(), [](const ReadCounter& sink) { return sink.reads == 1; });
  }));
  for (const SocketHandle socket : receivers) sockets.Close(socket);
}

}  // namespace
}  // namespace trabex
