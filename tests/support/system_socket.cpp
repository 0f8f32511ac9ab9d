#include "support/system_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace trabex {

namespace {

constexpr int kFlags = SOCK_NONBLOCK | SOCK_CLOEXEC;

sockaddr_in AddressOf(const Endpoint& endpoint) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_addr.s_addr = htonl(endpoint.address.Number());
  result.sin_port = htons(endpoint.port);
  return result;
}

Endpoint EndpointOf(const sockaddr_in& address) {
  return {IPAddress::IPv4(ntohl(address.sin_addr.s_addr)), ntohs(address.sin_port)};
}

const sockaddr* Plain(const sockaddr_in& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

std::size_t Asked(int descriptor, unsigned long question) {
  int bytes = 0;
  return ioctl(descriptor, question, &bytes) == 0 ? static_cast<std::size_t>(bytes) : 0;
}

bool Await(int descriptor, short events, std::chrono::milliseconds limit, short& came) {
  pollfd ready{descriptor, events, 0};
  const bool any = poll(&ready, 1, static_cast<int>(limit.count())) == 1;
  came = ready.revents;
  return any;
}

}  // namespace

SystemSocket::SystemSocket(Transport transport)
    : descriptor_(socket(AF_INET, (transport == Transport::kTcp ? SOCK_STREAM : SOCK_DGRAM) | kFlags, 0)) {
  if (descriptor_ < 0) throw std::runtime_error("no socket for the test");
}

SystemSocket::~SystemSocket() {
  Close();
}

SystemSocket::SystemSocket(SystemSocket&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)) {}

SystemSocket& SystemSocket::operator=(SystemSocket&& other) noexcept {
  if (this == &other) return *this;
  Close();
  descriptor_ = std::exchange(other.descriptor_, -1);
  return *this;
}

void SystemSocket::SetOption(int level, int name, int value) {
  if (setsockopt(descriptor_, level, name, &value, sizeof value) != 0) {
    throw std::runtime_error("the test cannot set a socket's option");
  }
}

void SystemSocket::ShareAddress() {
  SetOption(SOL_SOCKET, SO_REUSEADDR, 1);
}

void SystemSocket::ChoosePortAtConnect() {
  SetOption(IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, 1);
}

bool SystemSocket::Bind(const Endpoint& local) {
  const sockaddr_in address = AddressOf(local);
  return bind(descriptor_, Plain(address), sizeof address) == 0;
}

bool SystemSocket::Listen(int backlog) {
  return listen(descriptor_, backlog) == 0;
}

SystemSocket SystemSocket::Accept() {
  SystemSocket accepted(accept4(descriptor_, nullptr, nullptr, kFlags));
  if (accepted.IsOpen()) accepted.SetOption(IPPROTO_TCP, TCP_NODELAY, 1);
  return accepted;
}

void SystemSocket::LimitReceiveBuffer(int bytes) {
  SetOption(SOL_SOCKET, SO_RCVBUF, bytes);
}

bool SystemSocket::Connect(const Endpoint& remote) {
  const sockaddr_in address = AddressOf(remote);
  return connect(descriptor_, Plain(address), sizeof address) == 0 || errno == EINPROGRESS;
}

bool SystemSocket::Connected(std::chrono::milliseconds limit) {
  short came = 0;
  if (!Await(descriptor_, POLLOUT, limit, came) || (came & (POLLERR | POLLHUP)) != 0) return false;
  SetOption(IPPROTO_TCP, TCP_NODELAY, 1);
  return true;
}

void SystemSocket::AwaitReadable(std::chrono::milliseconds limit) const {
  short came = 0;
  static_cast<void>(Await(descriptor_, POLLIN, limit, came));
}

SystemSocket::Outcome SystemSocket::Receive(std::span<char> buffer, std::size_t& received) {
  const ssize_t count = recv(descriptor_, buffer.data(), buffer.size(), 0);
  received = count > 0 ? static_cast<std::size_t>(count) : 0;
  if (count > 0) return Outcome::kData;
  if (count == 0) return Outcome::kEnd;
  return errno == EAGAIN || errno == EINTR ? Outcome::kNothingYet : Outcome::kReset;
}

std::size_t SystemSocket::Send(std::string_view bytes) {
  const ssize_t count = send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  return count > 0 ? static_cast<std::size_t>(count) : 0;
}

bool SystemSocket::ReceiveFrom(std::span<char> buffer, std::size_t& received, Endpoint& from) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  const ssize_t count =
      recvfrom(descriptor_, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&address), &length);
  if (count < 0) return false;
  received = static_cast<std::size_t>(count);
  from = EndpointOf(address);
  return true;
}

void SystemSocket::SendTo(std::string_view bytes, const Endpoint& to) {
  const sockaddr_in address = AddressOf(to);
  sendto(descriptor_, bytes.data(), bytes.size(), 0, Plain(address), sizeof address);
}

std::size_t SystemSocket::Untaken() const {
  return Asked(descriptor_, FIONREAD);
}

std::size_t SystemSocket::Undelivered() const {
  return Asked(descriptor_, TIOCOUTQ);
}

Endpoint SystemSocket::Local() const {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  getsockname(descriptor_, reinterpret_cast<sockaddr*>(&address), &length);
  return EndpointOf(address);
}

Endpoint SystemSocket::Remote() const {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  getpeername(descriptor_, reinterpret_cast<sockaddr*>(&address), &length);
  return EndpointOf(address);
}

void SystemSocket::ShutDownSending() {
  shutdown(descriptor_, SHUT_WR);
}

void SystemSocket::Close() {
  if (descriptor_ >= 0) close(std::exchange(descriptor_, -1));
}

void SystemSocket::Reset() {
  const linger at_once{1, 0};
  setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  Close();
}

SystemName::~SystemName() {
  if (descriptor_ >= 0) close(descriptor_);
}

bool SystemName::Take(std::string_view name) {
  if (descriptor_ < 0) descriptor_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  name.copy(address.sun_path + 1, sizeof address.sun_path - 1);  // after a NUL: no file
  const std::size_t length = offsetof(sockaddr_un, sun_path) + 1 + name.size();
  return bind(descriptor_, reinterpret_cast<const sockaddr*>(&address), static_cast<socklen_t>(length)) == 0;
}

}  // namespace trabex
