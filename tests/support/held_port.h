// A loopback port that stays with a test, whether it listens there or not.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>

namespace trabex {

// Keeps a port of 127.0.0.1 by a socket that is bound to it and never listens. While no other socket does,
// connections are refused; a test that closed its listener without this could find another process's in its
// place.
class HeldPort {
 public:
  // Raises std::runtime_error when there is no port.
  HeldPort() : descriptor_(Bound(0)) {
    sockaddr_in bound{};
    socklen_t size = sizeof bound;
    getsockname(descriptor_, reinterpret_cast<sockaddr*>(&bound), &size);
    port_ = ntohs(bound.sin_port);
  }
  ~HeldPort() { close(descriptor_); }
  HeldPort(const HeldPort&) = delete;
  HeldPort& operator=(const HeldPort&) = delete;

  std::uint16_t Port() const { return port_; }
  // The descriptor of a new non-blocking socket that listens on the port; the caller closes it.
  int Listen(int backlog) const {
    const int descriptor = Bound(port_);
    if (listen(descriptor, backlog) == 0) return descriptor;
    close(descriptor);
    throw std::runtime_error("the test cannot listen");
  }

 private:
  static int Bound(std::uint16_t port) {
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (descriptor < 0) throw std::runtime_error("no socket for the test");
    // Lets both sockets have the port; it is no invitation to others as long as one of them listens.
    const int on = 1;
    setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    local.sin_port = htons(port);
    if (bind(descriptor, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0) return descriptor;
    close(descriptor);
    throw std::runtime_error("no port for the test");
  }

  int descriptor_;
  std::uint16_t port_ = 0;
};

}  // namespace trabex
