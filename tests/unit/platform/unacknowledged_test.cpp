// What shows that a peer reads, however slowly.
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "platform/clock.h"
#include "platform/sockets.h"
#include "support/loop_runner.h"
#include "support/system_socket.h"
#include "support/told_by_system.h"

namespace trabex {
namespace {

class UnacknowledgedTest : public testing::Test {
 protected:
  // Our end, and a peer that holds little and reads only when it is told to.
  void Connect() {
    SocketHandle listener;
    Endpoint address;
    ASSERT_EQ(sockets.Open(Transport::kTcp, AddressFamily::kIPv4, listener), 0);
    ASSERT_EQ(sockets.BindExclusively(listener, {kIPv4Loopback, 0}), 0);
    ASSERT_EQ(sockets.Listen(listener, 0), 0);
    ASSERT_EQ(sockets.LocalEndpoint(listener, address), 0);
    peer.LimitReceiveBuffer(4096);
    ASSERT_TRUE(peer.Connect(address) && peer.Connected(std::chrono::seconds(5)));
    ASSERT_TRUE(RunUntil(loop, [&] { return sockets.Accept(listener, ours) == 0; }));
  }
  // The peer takes up to `count` bytes of what is there.
  void Read(std::size_t count) {
    std::vector<char> room(count);
    std::size_t received = 0;
    peer.Receive(room, received);
    read += received;
  }
  std::size_t Left() {
    std::size_t left = 1;
    EXPECT_EQ(sockets.Unacknowledged(ours, left), 0);
    return left;
  }

  SystemClock clock;
  EventLoop loop{clock};
  Sockets sockets{loop};
  SocketHandle ours;
  SystemSocket peer{Transport::kTcp};
  std::size_t read = 0;
};

TEST_F(UnacknowledgedTest, IsWhatWasTakenAndThePeerHasNot) {
  Connect();
  if (!AcknowledgementsAreTold()) {
    std::size_t left = 1;
    EXPECT_NE(sockets.Unacknowledged(ours, left), 0);
    EXPECT_EQ(left, 0U);
    return;
  }
  EXPECT_EQ(Left(), 0U);
  const std::string all(100000, 'a');
  std::size_t sent = 0;
  ASSERT_EQ(sockets.Send(ours, all, sent), 0);
  ASSERT_GT(sent, 50000U);
  // What lies in the peer's system is acknowledged, read or not.
  std::size_t before = sent;
  EXPECT_TRUE(RunUntil(loop, [&] { return (before = Left()) < sent; }));
  EXPECT_GT(before, 40000U);
  EXPECT_TRUE(RunUntil(loop, [&] {
    Read(4096);
    return Left() < before;
  }));
  EXPECT_TRUE(RunUntil(loop, [&] {
    Read(4096);
    return read == sent && Left() == 0;
  }));
}

TEST_F(UnacknowledgedTest, OfAStaleHandleIsNothing) {
  Connect();
  sockets.Close(ours);
  std::size_t left = 1;
  EXPECT_EQ(sockets.Unacknowledged(ours, left), socket_error::kNotSocket);
  EXPECT_EQ(left, 0U);
}

// Where it is not told, by what sends take.
TEST_F(UnacknowledgedTest, ShowsSoonThatAPeerReads) {
  constexpr std::size_t kVisible_bytes = 256 << 10;
  Connect();
  const std::string all(1 << 16, 'a');
  std::int64_t taken = 0;
  const auto send = [&] {
    std::size_t sent = 0;
    while (sockets.Send(ours, all, sent) == 0) taken += static_cast<std::int64_t>(sent);
  };
  const auto progress = [&] {
    send();
    std::size_t left = 0;
    sockets.Unacknowledged(ours, left);
    return 2 * taken - static_cast<std::int64_t>(left);
  };
  send();
  for (int i = 0; i < 5; ++i) {
    // What is under way comes to rest first.
    std::int64_t before = progress();
    RunUntil(
        loop, [&] { return std::exchange(before, progress()) != before; }, Milliseconds{50});
    before = progress();
    read = 0;
    EXPECT_TRUE(RunUntil(loop, [&] {
      Read(4096);
      return progress() > before;
    }));
    EXPECT_LE(read, kVisible_bytes);
  }
}

}  // namespace
}  // namespace trabex
