// What sockets do on this system alone.
#include "platform/sockets.h"

#include <gtest/gtest.h>

#include "platform/clock.h"
#include "platform/windows/sockets/tcp_info.h"
#include "support/system_socket.h"

namespace trabex {
namespace {

TEST(TcpInfoTest, WhatWentOutOnceAndIsNotUnderWayIsAcknowledged) {
  const struct {
    ULONG64 out;
    ULONG again;
    ULONG in_flight;
    std::uint64_t acknowledged;
  } kRows[] = {
      {0, 0, 0, 0},
      {1000, 0, 0, 1000},
      {1000, 0, 400, 600},
      {1000, 300, 400, 300},
      {1000, 300, 0, 700},
      {1000, 1000, 400, 0},  // the system's figures are not of one moment
      {ULONG64{1} << 40, 0, 1, (std::uint64_t{1} << 40) - 1},
  };
  for (const auto& row : kRows) {
    TcpInfo info{};
    info.bytes_out = row.out;
    info.bytes_sent_again = row.again;
    info.bytes_in_flight = row.in_flight;
    EXPECT_EQ(AcknowledgedBytes(info), row.acknowledged)
        << row.out << ", " << row.again << ", " << row.in_flight;
  }
}

// The one that shares could take callers otherwise, whichever of both is first.
TEST(WindowsSocketsTest, AnExclusiveBindIsNotSharedWithWhoWould) {
  SystemClock clock;
  EventLoop loop(clock);
  Sockets sockets(loop);
  SocketHandle exclusive;
  Endpoint address;
  ASSERT_EQ(sockets.Open(Transport::kTcp, AddressFamily::kIPv4, exclusive), 0);
  ASSERT_EQ(sockets.BindExclusively(exclusive, {kIPv4Loopback, 0}), 0);
  ASSERT_EQ(sockets.LocalEndpoint(exclusive, address), 0);
  {
    SystemSocket sharing(Transport::kTcp);
    sharing.ShareAddress();
    EXPECT_FALSE(sharing.Bind(address));
  }
  ASSERT_EQ(sockets.Listen(exclusive, 0), 0);
  {
    SystemSocket sharing(Transport::kTcp);
    sharing.ShareAddress();
    EXPECT_FALSE(sharing.Bind(address));
    EXPECT_FALSE(sharing.Bind({kIPv4Any, address.port}));
  }
  ASSERT_EQ(sockets.Close(exclusive), 0);
  SystemSocket sharing(Transport::kTcp);
  sharing.ShareAddress();
  ASSERT_TRUE(sharing.Bind(address));
  ASSERT_TRUE(sharing.Listen(1));
  ASSERT_EQ(sockets.Open(Transport::kTcp, AddressFamily::kIPv4, exclusive), 0);
  EXPECT_NE(sockets.BindExclusively(exclusive, address), 0);
}

}  // namespace
}  // namespace trabex
