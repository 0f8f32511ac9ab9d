// A TCP socket on 127.0.0.1 that knows nothing of the program's own.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "support/system_socket.h"

namespace trabex {

class PlainSocket {
 public:
  // Takes a port that was free; returns it.
  int Bind() {
    EXPECT_TRUE(socket_.Bind({kIPv4Loopback, 0}));
    return socket_.Local().port;
  }
  // Whether a listener may have the port, whatever earlier connections have left of it.
  bool CanListenOn(int port) {
    socket_.ShareAddress();
    return socket_.Bind(On(port));
  }
  void Listen() { EXPECT_TRUE(socket_.Listen(5)); }
  // Whether somebody listens there.
  bool Connect(int port) { return socket_.Connect(On(port)) && socket_.Connected(std::chrono::seconds(5)); }
  // What has arrived by now.
  std::string ReadNow() {
    std::array<char, 4096> bytes;
    std::size_t count = 0;
    socket_.Receive(bytes, count);
    return {bytes.data(), count};
  }
  void Close() { socket_.Close(); }

 private:
  static Endpoint On(int port) { return {kIPv4Loopback, static_cast<std::uint16_t>(port)}; }

  SystemSocket socket_{Transport::kTcp};
};

// Ports for the listeners of this process alone. They lie below those that the system gives out by itself: of
// these there may be few left, and then several processes are given the same one. A socket name marks them as
// taken for as long as the process lives.
class OwnPorts {
 public:
  OwnPorts() {
    for (int block = 0; block < kBlocks && first_ == 0; ++block) {
      if (marker_.Take("ports of a test " + std::to_string(block))) first_ = kFirst + block * kSize;
    }
    EXPECT_NE(first_, 0) << "no ports are left";
  }

  // One without a listener; 0 when there is none. All others come before the same one again.
  int Next() {
    for (int tries = 0; tries < kSize; ++tries) {
      const int port = first_ + next_++ % kSize;
      if (PlainSocket().CanListenOn(port)) return port;
    }
    ADD_FAILURE() << "all own ports are in use";
    return 0;
  }

 private:
  static constexpr int kFirst = 5000;
  static constexpr int kSize = 100;
  static constexpr int kBlocks = 70;

  SystemName marker_;
  int first_ = 0;
  int next_ = 0;
};

// A port of 127.0.0.1 without a listener, and that no other test process takes.
inline int FreePort() {
  static OwnPorts ports;
  return ports.Next();
}

}  // namespace trabex
