// What tests of the loop's messages share: a listener of ours, and connections whose other end is a plain socket.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "platform/clock.h"
#include "platform/event_loop.h"
#include "platform/sockets.h"
#include "platform/windows/loop/event_loop_impl.h"
#include "platform/windows/loop/message_numbers.h"
#include "support/loop_runner.h"
#include "support/system_socket.h"

namespace trabex {

// The machine's, and what was skipped of its time.
class SkippingClock final : public Clock {
 public:
  DateTime Now() const override { return system_.Now(); }
  int TimeZoneBias() const override { return system_.TimeZoneBias(); }
  std::int64_t UnixMilliseconds() const override { return system_.UnixMilliseconds(); }
  MonotonicTime Monotonic() const override { return system_.Monotonic() + skipped_; }
  void Skip(Milliseconds span) { skipped_ += span; }

 private:
  SystemClock system_;
  Milliseconds skipped_{0};
};

// Counts what it is notified of.
class Counter final : public SocketSink {
 public:
  void OnSocketEvent(SocketHandle /*socket*/, SocketEvent event, int error) override {
    ++events;
    reads += event == SocketEvent::kRead ? 1 : 0;
    last_error = error;
    closes += event == SocketEvent::kClose ? 1 : 0;
  }

  int events = 0;
  int reads = 0;
  int closes = 0;
  int last_error = 0;
};

class LoopMessagesTest : public testing::Test {
 protected:
  // Two ends of a connection: one that is watched, and the peer's.
  struct Pair {
    SocketHandle ours;
    SystemSocket peer;
  };
  Pair Connect(SocketSink& sink, bool watched = true) {
    constexpr std::chrono::minutes kLimit{1};
    Pair pair{{}, SystemSocket(Transport::kTcp)};
    EXPECT_TRUE(pair.peer.Connect(address_) && pair.peer.Connected(kLimit));
    int result = socket_error::kWouldBlock;
    RunUntil(
        loop, [&] { return (result = sockets.Accept(listener_, pair.ours)) != socket_error::kWouldBlock; },
        kLimit);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(watched ? sockets.Watch(pair.ours, &sink) : 0, 0);
    return pair;
  }
  HWND Window() { return loop.GetImpl().Window(); }
  // The numbers of sockets' messages.
  static constexpr UINT kFirst = MessageNumbers::kFirst;
  static constexpr UINT kLast = kFirst + static_cast<UINT>(MessageNumbers::kCount) - 1;
  // Takes those out of the window's queue, as if the system had dropped them; returns how many there were.
  int DropMessages() {
    int count = 0;
    MSG message{};
    while (PeekMessageW(&message, Window(), kFirst, kLast, PM_REMOVE) != 0) ++count;
    return count;
  }
  // Whether a socket's message waits in the window's queue.
  bool PeekedAny() {
    MSG message{};
    return PeekMessageW(&message, Window(), kFirst, kLast, PM_NOREMOVE) != 0;
  }
  // Waits until `count` bytes have come, without the loop.
  void Arrived(SocketHandle socket, std::size_t count) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    std::size_t there = 0;
    while (sockets.Available(socket, there) == 0 && there < count && std::chrono::steady_clock::now() < end) {
      Sleep(1);
    }
    ASSERT_EQ(there, count);
  }
  Endpoint Address() const { return address_; }

  SkippingClock clock;
  EventLoop loop{clock};
  Sockets sockets{loop};

 private:
  void SetUp() override {
    ASSERT_EQ(sockets.Open(Transport::kTcp, AddressFamily::kIPv4, listener_), 0);
    ASSERT_EQ(sockets.BindExclusively(listener_, {kIPv4Loopback, 0}), 0);
    ASSERT_EQ(sockets.Listen(listener_, 0), 0);
    ASSERT_EQ(sockets.LocalEndpoint(listener_, address_), 0);
  }

  SocketHandle listener_;
  Endpoint address_;
};

}  // namespace trabex
