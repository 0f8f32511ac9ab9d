// What has to be possible when there is no memory.
#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <vector>

#include "platform/clock.h"
#include "platform/common/socket_table.h"
#include "platform/event_loop.h"
#include "platform/fd_watcher.h"
#include "platform/sockets.h"
#include "support/counted_allocations.h"
#include "support/fake_clock.h"
#include "support/loop_runner.h"
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

// Who is told to wait must be heard again.
TEST(WithoutMemory, TimersAreEnabled) {
  FakeClock clock;
  EventLoop loop(clock);
  std::vector<std::unique_ptr<Timer>> timers;
  std::size_t ticks = 0;
  for (int i = 0; i < 100; ++i) {
    timers.push_back(std::make_unique<Timer>(loop, Milliseconds{1000}, [&] { ++ticks; }));
    if (i % 3 == 0) timers.erase(timers.begin());
  }
  {
    const FailedAllocation failure(0, FailedAllocation::kAll);
    for (const auto& timer : timers) timer->Enable();
    EXPECT_FALSE(failure.HasFailed());
  }
  clock.Advance(Milliseconds{1000});
  loop.RunOnce(Milliseconds{0});
  EXPECT_EQ(ticks, timers.size());
}

class AcceptCounter final : public SocketSink {
 public:
  void OnSocketEvent(SocketHandle /*socket*/, SocketEvent event, int /*error*/) override {
    if (event == SocketEvent::kAccept) ++accepts;
  }
  int accepts = 0;
};

// The place for a connection is looked for before the connection is taken, so that none has to be thrown away.
TEST(WithoutMemory, ConnectionsWait) {
  SystemClock clock;
  EventLoop loop(clock);
  Sockets sockets(loop);
  AcceptCounter sink;
  SocketHandle listener;
  Endpoint address;
  ASSERT_EQ(sockets.Open(Transport::kTcp, AddressFamily::kIPv4, listener), 0);
  ASSERT_EQ(sockets.BindExclusively(listener, {kIPv4Loopback, 0}), 0);
  ASSERT_EQ(sockets.Listen(listener, 0), 0);
  ASSERT_EQ(sockets.LocalEndpoint(listener, address), 0);
  ASSERT_EQ(sockets.Watch(listener, &sink), 0);
  std::vector<SystemSocket> clients;
  std::vector<SocketHandle> accepted;
  int error = 0;
  // Until the table has no place left.
  while (error == 0) {
    ASSERT_LT(clients.size(), 200U);
    SystemSocket& client = clients.emplace_back(Transport::kTcp);
    ASSERT_TRUE(client.Connect(address));
    ASSERT_TRUE(RunUntil(loop, [&] { return sink.accepts > 0; }));
    sink.accepts = 0;
    SocketHandle socket;
    {
      const FailedAllocation failure(0, FailedAllocation::kAll);
      error = sockets.Accept(listener, socket);
    }
    if (error == 0) accepted.push_back(socket);
  }
  EXPECT_EQ(error, socket_error::kNoBufferSpace);
  // It is told of again, also to somebody who has not tried.
  ASSERT_TRUE(RunUntil(loop, [&] { return sink.accepts == 1; }));
  ASSERT_EQ(sockets.Watch(listener, nullptr), 0);
  ASSERT_EQ(sockets.Watch(listener, &sink), 0);
  ASSERT_TRUE(RunUntil(loop, [&] { return sink.accepts == 2; }));
  SocketHandle socket;
  EXPECT_EQ(sockets.Accept(listener, socket), 0);
  EXPECT_EQ(clients.back().Send("x"), 1U);
  char byte = 0;
  std::size_t received = 0;
  ASSERT_EQ(sockets.Watch(socket, &sink), 0);
  EXPECT_TRUE(RunUntil(loop, [&] { return sockets.Receive(socket, {&byte, 1}, received) == 0; }));
  EXPECT_EQ(byte, 'x');
  sockets.Close(socket);
  for (const SocketHandle each : accepted) sockets.Close(each);
  sockets.Close(listener);
}

struct TableEntry {
  int native = -1;
  std::uint32_t generation = 0;
  SocketSink* sink = nullptr;
  AddressFamily family = AddressFamily::kIPv4;
  int role = 0;
  std::array<char, 32> more{};
};

// Where memory is short, there is some for one socket more, and none for thousands.
TEST(LittleMemory, IsEnoughForOneSocketMore) {
  constexpr int kSockets = 20000;
  SocketTable<TableEntry> table;
  std::vector<SocketHandle> handles;
  handles.reserve(kSockets);
  const CountedAllocations allocations;
  for (int i = 0; i < kSockets; ++i) handles.push_back(table.Add(i, AddressFamily::kIPv4, 0));
  for (int i = 0; i < kSockets; ++i) {
    ASSERT_NE(table.Find(handles[static_cast<std::size_t>(i)]), nullptr);
    ASSERT_EQ(table.Find(handles[static_cast<std::size_t>(i)])->native, i);
  }
  EXPECT_GT(allocations.Count(), 0U);
  EXPECT_LE(allocations.Largest(), 65536U);
}

TEST(LittleMemory, IsEnoughForOneTimerMore) {
  FakeClock clock;
  EventLoop loop(clock);
  std::deque<Timer> timers;
  std::size_t ticks = 0;
  const CountedAllocations allocations;
  for (int i = 0; i < 20000; ++i)
    timers.emplace_back(loop, Milliseconds{1 + i * 7919 % 1000}, [&] { ++ticks; }).Enable();
  EXPECT_GT(allocations.Count(), 0U);
  EXPECT_LE(allocations.Largest(), 65536U);
  clock.Advance(Milliseconds{500});
  loop.RunOnce(Milliseconds{0});
  EXPECT_EQ(ticks, 10000U);
}

}  // namespace
}  // namespace trabex
