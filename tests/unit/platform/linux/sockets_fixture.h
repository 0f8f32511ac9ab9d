// What tests of sockets on Linux share: one of ours, connected to a plain one that the test drives by itself.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <set>

#include "platform/clock.h"
#include "platform/sockets.h"
#include "support/loop_runner.h"

namespace trabex {

inline constexpr IPAddress kLoopback = kIPv4Loopback;

inline std::set<int> OpenDescriptors() {
  std::set<int> result;
  for (int descriptor = 0; descriptor < 1024; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) >= 0) result.insert(descriptor);
  }
  return result;
}

class Sink final : public SocketSink {
 public:
  void OnSocketEvent(SocketHandle, SocketEvent event, int error) override {
    if (event == SocketEvent::kRead) ++reads;
    if (event == SocketEvent::kClose) {
      ++closes;
      close_error = error;
    }
    if (event == SocketEvent::kWrite) ++writes;
  }
  int reads = 0;
  int closes = 0;
  int writes = 0;
  int close_error = 0;
};

class LinuxSocketsTest : public testing::Test {
 protected:
  void Listen(SocketHandle& listener, Endpoint& address) {
    ASSERT_EQ(sockets.Open(Transport::kTcp, AddressFamily::kIPv4, listener), 0);
    ASSERT_EQ(sockets.BindExclusively(listener, {kLoopback, 0}), 0);
    ASSERT_EQ(sockets.Listen(listener, 0), 0);
    ASSERT_EQ(sockets.LocalEndpoint(listener, address), 0);
  }
  // A listener of ours and a client that the test drives by itself.
  void ConnectRaw() {
    SocketHandle listener;
    Endpoint address;
    Listen(listener, address);
    raw = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(address.port);
    to.sin_addr.s_addr = htonl(address.address.Number());
    setsockopt(raw, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
    ASSERT_EQ(connect(raw, reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
    int result = 0;
    RunUntil(loop, [&] { return (result = sockets.Accept(listener, ours)) != 10035; });
    ASSERT_EQ(result, 0);
  }
  // The same with small buffers, which the next sends of ours fill soon.
  void ConnectRawWithSmallBuffers() {
    receive_buffer = 1;
    const std::set<int> before = OpenDescriptors();
    ConnectRaw();
    const int smallest = 1;
    for (const int descriptor : OpenDescriptors()) {
      if (before.count(descriptor) == 0)
        setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &smallest, sizeof smallest);
    }
  }
  void TearDown() override {
    if (raw >= 0) close(raw);
  }

  SystemClock clock;
  EventLoop loop{clock};
  Sockets sockets{loop};
  Sink sink;
  SocketHandle ours;
  int raw = -1;
  int receive_buffer = 1 << 20;
};

}  // namespace trabex
