#include "support/test_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <stdexcept>
#include <utility>

namespace trabex {

namespace {

sockaddr_in Address(const IPAddress& address, std::uint16_t port) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_addr.s_addr = htonl(address.Number());
  result.sin_port = htons(port);
  return result;
}

const sockaddr* Plain(const sockaddr_in& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

int NewSocket() {
  const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (descriptor < 0) throw std::runtime_error("no socket for the test");
  return descriptor;
}

void SetNoDelay(int descriptor) {
  const int on = 1;
  setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

}  // namespace

TestPeer::TestPeer(int descriptor) : descriptor_(descriptor) {}

TestPeer::~TestPeer() {
  Close();
}

TestPeer::TestPeer(TestPeer&& other) noexcept {
  *this = std::move(other);
}

TestPeer& TestPeer::operator=(TestPeer&& other) noexcept {
  if (this == &other) return *this;
  Close();
  descriptor_ = std::exchange(other.descriptor_, -1);
  received_ = std::move(other.received_);
  at_end_ = other.at_end_;
  was_reset_ = other.was_reset_;
  return *this;
}

TestPeer TestPeer::Connect(std::uint16_t port, const IPAddress& from) {
  TestPeer peer(NewSocket());
  const sockaddr_in local = Address(from, 0);
  const sockaddr_in remote = Address(kIPv4Loopback, port);
  // The port is chosen with the connect: bind would reserve one for this socket, and many tests connect
  // often.
  const int on = 1;
  setsockopt(peer.descriptor_, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
  if (bind(peer.descriptor_, Plain(local), sizeof local) != 0) throw std::runtime_error("test cannot bind");
  if (connect(peer.descriptor_, Plain(remote), sizeof remote) != 0 && errno != EINPROGRESS) {
    throw std::runtime_error("test cannot connect");
  }
  pollfd ready{peer.descriptor_, POLLOUT, 0};
  if (poll(&ready, 1, 5000) != 1 || (ready.revents & POLLERR) != 0)
    throw std::runtime_error("test cannot connect");
  SetNoDelay(peer.descriptor_);
  return peer;
}

void TestPeer::Poll() {
  Take(std::numeric_limits<std::size_t>::max());
}

std::size_t TestPeer::Take(std::size_t max_bytes) {
  std::array<char, 65536> room;
  std::size_t total = 0;
  while (descriptor_ >= 0 && !at_end_ && total < max_bytes) {
    const ssize_t count = recv(descriptor_, room.data(), std::min(room.size(), max_bytes - total), 0);
    if (count > 0) {
      received_.append(room.data(), static_cast<std::size_t>(count));
      total += static_cast<std::size_t>(count);
    } else if (count == 0) {
      at_end_ = true;
    } else {
      if (errno == ECONNRESET) at_end_ = was_reset_ = true;
      break;
    }
  }
  return total;
}

std::size_t TestPeer::Untaken() const {
  int bytes = 0;
  return ioctl(descriptor_, FIONREAD, &bytes) == 0 ? static_cast<std::size_t>(bytes) : 0;
}

std::size_t TestPeer::Send(std::string_view bytes) {
  const ssize_t count = send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  return count > 0 ? static_cast<std::size_t>(count) : 0;
}

void TestPeer::HoldLittle() {
  const int bytes = 32768;
  setsockopt(descriptor_, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
}

void TestPeer::ShutDownSending() {
  shutdown(descriptor_, SHUT_WR);
}

void TestPeer::Close() {
  if (descriptor_ >= 0) close(descriptor_);
  descriptor_ = -1;
}

void TestPeer::Reset() {
  const linger at_once{1, 0};
  setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  Close();
}

TestListener::TestListener() : descriptor_(port_.Listen(128)) {}

TestListener::~TestListener() {
  Close();
}

TestPeer TestListener::Accept() {
  const int accepted = accept4(descriptor_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (accepted >= 0) SetNoDelay(accepted);
  return TestPeer(accepted);
}

void TestListener::Close() {
  if (descriptor_ >= 0) close(descriptor_);
  descriptor_ = -1;
}

}  // namespace trabex
