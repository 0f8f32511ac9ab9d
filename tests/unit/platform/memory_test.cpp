// What has to be possible when there is no memory.
#include <gtest/gtest.h>

#include <array>
#include <optional>

#include "platform/event_loop.h"
#include "platform/fd_watcher.h"
#include "support/counted_allocations.h"
#include "support/fake_clock.h"
#include "support/system_socket.h"

namespace trabex {
namespace {

// A destructor that needs memory ends the program when there is none.
TEST(WithoutMemory, WatchersGo) {
  FakeClock clock;
  EventLoop loop(clock);
  constexpr std::size_t kWatchers = 100;
  std::array<SystemSocket, kWatchers> sockets;
  std::array<std::optional<FdWatcher>, kWatchers> watchers;
  for (std::size_t i = 0; i < kWatchers; ++i) {
    sockets[i] = SystemSocket(Transport::kUdp);
    watchers[i].emplace(loop, sockets[i].Native(), [](FdReadiness) {});
    watchers[i]->SetInterest({.readable = true});
  }
  const FailedAllocation failure(0, FailedAllocation::kAll);
  for (auto& watcher : watchers) watcher.reset();
  EXPECT_FALSE(failure.HasFailed());
}

}  // namespace
}  // namespace trabex
