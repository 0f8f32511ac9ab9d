#include "support/test_peer.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <limits>
#include <stdexcept>
#include <utility>

namespace trabex {

TestPeer TestPeer::Connect(std::uint16_t port, const IPAddress& from) {
  SystemSocket socket(Transport::kTcp, from.IsIPv6() ? AddressFamily::kIPv6 : AddressFamily::kIPv4);
  const IPAddress loopback = from.IsIPv6() ? ParseIPAddress("::1").value() : kIPv4Loopback;
  // Otherwise the bind would reserve a port for this socket, and many tests connect often.
  socket.ChoosePortAtConnect();
  if (!socket.Bind({from, 0})) throw std::runtime_error("test cannot bind");
  if (!socket.Connect({loopback, port}) || !socket.Connected(std::chrono::seconds(5))) {
    throw std::runtime_error("test cannot connect");
  }
  return TestPeer(std::move(socket));
}

void TestPeer::Poll() {
  Take(std::numeric_limits<std::size_t>::max());
}

std::size_t TestPeer::Send(std::string_view bytes) {
  if (!tls_) return socket_.Send(bytes);
  if (!Secured()) return 0;
  tls_->Write(bytes);
  Flush();
  return bytes.size();
}

void TestPeer::ShutDownSending() {
  if (!tls_) return socket_.ShutDownSending();
  SayGoodbye();
  shut_down_ = true;
  Flush();
}

void TestPeer::Close() {
  if (Secured() && Open()) SayGoodbye();
  socket_.Close();
}

void TestPeer::StartTls(const TlsPeerOptions& options) {
  tls_ = std::make_unique<TlsPeer>(options);
  Flush();
}

void TestPeer::SayGoodbye() {
  if (Secured()) tls_->SayGoodbye();
  Flush();
}

void TestPeer::SendInClear(std::string_view bytes) {
  Flush();
  socket_.Send(bytes);
}

void TestPeer::Flush() {
  if (!tls_) return;
  wire_ += tls_->Output();
  wire_.erase(0, socket_.Send(std::string_view(wire_).substr(0, wire_piece_)));
  if (wire_.empty() && shut_down_) socket_.ShutDownSending();
}

std::size_t TestPeer::Take(std::size_t max_bytes) {
  if (tls_ && Open()) Flush();
  std::array<char, 65536> room;
  std::size_t total = 0;
  while (Open() && !at_end_ && total < max_bytes) {
    std::size_t count = 0;
    switch (socket_.Receive({room.data(), std::min(room.size(), max_bytes - total)}, count)) {
      case SystemSocket::Outcome::kData:
        total += count;
        if (!tls_) {
          received_.append(room.data(), count);
          break;
        }
        tls_->Feed({room.data(), count});
        received_ += std::exchange(tls_->Text(), {});
        if (tls_->Ended()) at_end_ = true;
        Flush();
        break;
      case SystemSocket::Outcome::kNothingYet:
        return total;
      case SystemSocket::Outcome::kEnd:
        at_end_ = true;
        break;
      case SystemSocket::Outcome::kReset:
        at_end_ = was_reset_ = true;
        break;
    }
  }
  return total;
}

}  // namespace trabex
