// A TCP socket on 127.0.0.1 that knows nothing of the program's own.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

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

// A port of 127.0.0.1 on which nobody listens. Somebody may take it before it is used; the system gives out
// others first.
inline int FreePort() {
  return PlainSocket().Bind();
}

}  // namespace trabex
