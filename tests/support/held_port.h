// A loopback port that stays with a test, whether it listens there or not.
#pragma once

#include <cstdint>
#include <stdexcept>

#include "support/system_socket.h"

namespace trabex {

// Keeps a port of 127.0.0.1 by a socket that is bound to it and never listens. While no other socket does,
// connections are refused; a test that closed its listener without this could find another process's in its
// place.
class HeldPort {
 public:
  // Raises std::runtime_error when there is no port.
  HeldPort() : socket_(Bound(0)), port_(socket_.Local().port) {}

  std::uint16_t Port() const { return port_; }
  // A new socket that listens on the port.
  SystemSocket Listen(int backlog) const {
    SystemSocket listener = Bound(port_);
    if (!listener.Listen(backlog)) throw std::runtime_error("the test cannot listen");
    return listener;
  }

 private:
  static SystemSocket Bound(std::uint16_t port) {
    SystemSocket socket(Transport::kTcp);
    // Lets both sockets have the port; it is no invitation to others as long as one of them listens.
    socket.ShareAddress();
    if (!socket.Bind({kIPv4Loopback, port})) throw std::runtime_error("no port for the test");
    return socket;
  }

  SystemSocket socket_;
  std::uint16_t port_;
};

}  // namespace trabex
