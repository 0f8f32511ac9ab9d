// A TCP socket on 127.0.0.1 that knows nothing of the program's own.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace trabex {

class PlainSocket {
 public:
  PlainSocket() : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
  ~PlainSocket() { Close(); }
  PlainSocket(const PlainSocket&) = delete;
  PlainSocket& operator=(const PlainSocket&) = delete;

  // Takes a port that was free; returns it.
  int Bind() {
    sockaddr_in address = Address(0);
    EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    socklen_t length = sizeof address;
    getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
  }
  // Whether a listener may have the port, whatever earlier connections have left of it.
  bool CanListenOn(int port) {
    const int on = 1;
    setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in address = Address(port);
    return bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }
  void Listen() { EXPECT_EQ(listen(socket_, 5), 0); }
  bool Connect(int port) {
    const sockaddr_in address = Address(port);
    return connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }
  // What has arrived by now.
  std::string ReadNow() {
    char bytes[4096];
    const ssize_t count = recv(socket_, bytes, sizeof bytes, MSG_DONTWAIT);
    return {bytes, count > 0 ? static_cast<std::size_t>(count) : 0};
  }
  void Close() {
    if (socket_ >= 0) close(std::exchange(socket_, -1));
  }

 private:
  static sockaddr_in Address(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
  }

  int socket_;
};

// Ports for the listeners of this process alone. They lie below those that the system gives out by itself: of
// these there may be few left, and then several processes are given the same one. A socket name marks them as
// taken for as long as the process lives.
class OwnPorts {
 public:
  OwnPorts() : marker_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    for (int block = 0; block < kBlocks && first_ == 0; ++block) {
      if (Take(block)) first_ = kFirst + block * kSize;
    }
    EXPECT_NE(first_, 0) << "no ports are left";
  }
  ~OwnPorts() { close(marker_); }
  OwnPorts(const OwnPorts&) = delete;
  OwnPorts& operator=(const OwnPorts&) = delete;

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

  bool Take(int block) const {
    const std::string name = "ports of a test " + std::to_string(block);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path + 1, name.size());  // after a NUL: no file
    const std::size_t length = offsetof(sockaddr_un, sun_path) + 1 + name.size();
    return bind(marker_, reinterpret_cast<const sockaddr*>(&address), static_cast<socklen_t>(length)) == 0;
  }

  int marker_;
  int first_ = 0;
  int next_ = 0;
};

// A port of 127.0.0.1 without a listener, and that no other test process takes.
inline int FreePort() {
  static OwnPorts ports;
  return ports.Next();
}

}  // namespace trabex
