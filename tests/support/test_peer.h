// One end of a TCP connection as a test holds it: plain system sockets, so that the program's own socket
// layer is not tested against itself.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "base/ip_address.h"
#include "support/held_port.h"
#include "support/system_socket.h"

namespace trabex {

class TestPeer {
 public:
  // Not open.
  TestPeer() = default;
  explicit TestPeer(SystemSocket socket) : socket_(std::move(socket)) {}

  // Connects to `port` of 127.0.0.1, from an IPv6 address to that of ::1, from `from`; connected when this returns.
  static TestPeer Connect(std::uint16_t port, const IPAddress& from = kIPv4Loopback);

  bool Open() const { return socket_.IsOpen(); }
  // Takes what has come; call it as often as you like.
  void Poll();
  // The same, but `max_bytes` at most; returns how many.
  std::size_t Take(std::size_t max_bytes);
  // What came so far and was not taken yet.
  std::string& Received() { return received_; }
  // The other end has closed, and everything before that is in Received.
  bool AtEnd() const { return at_end_; }
  // The other end has reset the connection.
  bool WasReset() const { return was_reset_; }
  // Bytes that have come and were not taken, neither by Poll nor by Take.
  std::size_t Untaken() const { return socket_.Untaken(); }
  // Hands `bytes` to the system as far as it takes them; returns how many.
  std::size_t Send(std::string_view bytes) { return socket_.Send(bytes); }
  // Keeps the system from holding ever more for this end as it reads; what it holds stays below 64 KB or so.
  void HoldLittle() { socket_.LimitReceiveBuffer(32768); }
  void ShutDownSending() { socket_.ShutDownSending(); }
  void Close() { socket_.Close(); }
  // Closes so that the other end sees a reset.
  void Reset() { socket_.Reset(); }

 private:
  SystemSocket socket_;
  std::string received_;
  bool at_end_ = false;
  bool was_reset_ = false;
};

// Listens on 127.0.0.1 on a port of the system's choice.
class TestListener {
 public:
  std::uint16_t Port() const { return port_.Port(); }
  // The next connection, not open when none waits.
  TestPeer Accept() { return TestPeer(socket_.Accept()); }
  // Refuses connections from now on.
  void Close() { socket_.Close(); }

 private:
  HeldPort port_;
  SystemSocket socket_ = port_.Listen(128);
};

}  // namespace trabex
