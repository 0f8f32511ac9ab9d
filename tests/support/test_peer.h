// One end of a TCP connection as a test holds it: plain system sockets, so that the program's own socket
// layer is not tested against itself.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "base/ip_address.h"
#include "support/held_port.h"
#include "support/system_socket.h"
#include "support/tls_peer.h"

namespace trabex {

class TestPeer {
 public:
  // Not open.
  TestPeer() = default;
  explicit TestPeer(SystemSocket socket) : socket_(std::move(socket)) {}

  // Connects to `port` of 127.0.0.1, from an IPv6 address to that of ::1, from `from`; connected when this
  // returns.
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
  // In how many segments what came so far has come.
  std::uint32_t SegmentsReceived() const { return socket_.SegmentsReceived(); }
  // Hands `bytes` to the system as far as it takes them; returns how many. Under TLS all of them, or none
  // before the handshake is done.
  std::size_t Send(std::string_view bytes);
  // Bytes under TLS that the system has not taken yet.
  std::size_t Unsent() const { return wire_.size(); }
  // Says at once to the other system that what was received is here.
  void AcknowledgeNow() const {
    if (Open()) socket_.AcknowledgeNow();
  }
  // Keeps the system from holding ever more for this end as it reads; what it holds stays below 64 KB or so.
  void HoldLittle() { socket_.LimitReceiveBuffer(32768); }
  // Under TLS that is said there, too.
  void ShutDownSending();
  void Close();
  // Closes so that the other end sees a reset.
  void Reset() { socket_.Reset(); }

  // From now on this is a client under TLS; Poll takes the handshake's steps. What came before stays.
  void StartTls(const TlsPeerOptions& options);
  // Whether the handshake is done.
  bool Secured() const { return tls_ && tls_->Established(); }
  // Why it failed; empty: it did not.
  std::string TlsError() const { return tls_ ? tls_->Error() : ""; }
  // Says that nothing more comes under TLS; the connection stands.
  void SayGoodbye();
  // Sends `bytes` as they are, under whatever else there is.
  void SendInClear(std::string_view bytes);
  // What is sent under TLS goes to the system in pieces of so many bytes, one with each Poll.
  void CutWire(std::size_t piece) { wire_piece_ = piece; }
  std::size_t WirePiece() const { return wire_piece_; }

 private:
  SystemSocket socket_;
  void Flush();

  std::string received_;
  bool at_end_ = false;
  bool was_reset_ = false;
  std::unique_ptr<TlsPeer> tls_;
  std::string wire_;  // that is to be sent under TLS
  std::size_t wire_piece_ = std::string::npos;
  bool shut_down_ = false;  // when the wire is empty
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
