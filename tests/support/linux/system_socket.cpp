#include "support/system_socket.h"

#include <arpa/inet.h>
#include <linux/tcp.h>
#include <netinet/in.h>
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

// An address as the system has it, of either family.
struct SystemAddress {
  union {
    sockaddr plain;
    sockaddr_in ipv4;
    sockaddr_in6 ipv6;
  };
  socklen_t length;
};

// Room for an address of the system's.
SystemAddress NoAddress() {
  SystemAddress result{};
  result.ipv6 = {};
  result.length = sizeof result.ipv6;
  return result;
}

SystemAddress AddressOf(const Endpoint& endpoint) {
  SystemAddress result = NoAddress();
  if (endpoint.address.IsIPv6()) {
    result.ipv6.sin6_family = AF_INET6;
    std::copy(endpoint.address.Bytes().begin(), endpoint.address.Bytes().end(),
              result.ipv6.sin6_addr.s6_addr);
    result.ipv6.sin6_port = htons(endpoint.port);
  } else {
    result.ipv4 = {};
    result.ipv4.sin_family = AF_INET;
    result.ipv4.sin_addr.s_addr = htonl(endpoint.address.Number());
    result.ipv4.sin_port = htons(endpoint.port);
    result.length = sizeof result.ipv4;
  }
  return result;
}

Endpoint EndpointOf(const SystemAddress& address) {
  if (address.plain.sa_family != AF_INET6) {
    return {IPAddress::IPv4(ntohl(address.ipv4.sin_addr.s_addr)), ntohs(address.ipv4.sin_port)};
  }
  IPAddress::IPv6Bytes bytes{};
  std::copy_n(address.ipv6.sin6_addr.s6_addr, bytes.size(), bytes.begin());
  return {IPAddress::IPv6(bytes), ntohs(address.ipv6.sin6_port)};
}

std::size_t Asked(int descriptor, unsigned long question) {
  int bytes = 0;
  return ioctl(descriptor, question, &bytes) == 0 ? static_cast<std::size_t>(bytes) : 0;
}

int Descriptor(std::intptr_t native) {
  return static_cast<int>(native);
}

bool Await(int descriptor, short events, std::chrono::milliseconds limit, short& came) {
  pollfd ready{descriptor, events, 0};
  const bool any = poll(&ready, 1, static_cast<int>(limit.count())) == 1;
  came = ready.revents;
  return any;
}

}  // namespace

SystemSocket::SystemSocket(Transport transport, AddressFamily family)
    : native_(socket(family == AddressFamily::kIPv6 ? AF_INET6 : AF_INET,
                     (transport == Transport::kTcp ? SOCK_STREAM : SOCK_DGRAM) | kFlags, 0)) {
  if (!IsOpen()) throw std::runtime_error("no socket for the test");
}

SystemSocket::~SystemSocket() {
  Close();
}

SystemSocket::SystemSocket(SystemSocket&& other) noexcept : native_(std::exchange(other.native_, kNone)) {}

SystemSocket& SystemSocket::operator=(SystemSocket&& other) noexcept {
  if (this == &other) return *this;
  Close();
  native_ = std::exchange(other.native_, kNone);
  return *this;
}

void SystemSocket::SetOption(int level, int name, int value) {
  if (setsockopt(Descriptor(native_), level, name, &value, sizeof value) != 0) {
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
  const SystemAddress address = AddressOf(local);
  return bind(Descriptor(native_), &address.plain, address.length) == 0;
}

bool SystemSocket::Listen(int backlog) {
  return listen(Descriptor(native_), backlog) == 0;
}

SystemSocket SystemSocket::Accept() {
  SystemSocket accepted(accept4(Descriptor(native_), nullptr, nullptr, kFlags));
  if (accepted.IsOpen()) accepted.SetOption(IPPROTO_TCP, TCP_NODELAY, 1);
  return accepted;
}

void SystemSocket::LimitReceiveBuffer(int bytes) {
  SetOption(SOL_SOCKET, SO_RCVBUF, bytes);
}

bool SystemSocket::Connect(const Endpoint& remote) {
  const SystemAddress address = AddressOf(remote);
  return connect(Descriptor(native_), &address.plain, address.length) == 0 || errno == EINPROGRESS;
}

bool SystemSocket::Connected(std::chrono::milliseconds limit) {
  short came = 0;
  if (!Await(Descriptor(native_), POLLOUT, limit, came) || (came & (POLLERR | POLLHUP)) != 0) return false;
  SetOption(IPPROTO_TCP, TCP_NODELAY, 1);
  return true;
}

void SystemSocket::AwaitReadable(std::chrono::milliseconds limit) const {
  short came = 0;
  static_cast<void>(Await(Descriptor(native_), POLLIN, limit, came));
}

SystemSocket::Outcome SystemSocket::Receive(std::span<char> buffer, std::size_t& received) {
  const ssize_t count = recv(Descriptor(native_), buffer.data(), buffer.size(), 0);
  received = count > 0 ? static_cast<std::size_t>(count) : 0;
  if (count > 0) return Outcome::kData;
  if (count == 0) return Outcome::kEnd;
  return errno == EAGAIN || errno == EINTR ? Outcome::kNothingYet : Outcome::kReset;
}

std::size_t SystemSocket::Send(std::string_view bytes) {
  const ssize_t count = send(Descriptor(native_), bytes.data(), bytes.size(), MSG_NOSIGNAL);
  return count > 0 ? static_cast<std::size_t>(count) : 0;
}

bool SystemSocket::ReceiveFrom(std::span<char> buffer, std::size_t& received, Endpoint& from) {
  SystemAddress address = NoAddress();
  const ssize_t count =
      recvfrom(Descriptor(native_), buffer.data(), buffer.size(), 0, &address.plain, &address.length);
  if (count < 0) return false;
  received = static_cast<std::size_t>(count);
  from = EndpointOf(address);
  return true;
}

void SystemSocket::SendTo(std::string_view bytes, const Endpoint& to) {
  const SystemAddress address = AddressOf(to);
  sendto(Descriptor(native_), bytes.data(), bytes.size(), 0, &address.plain, address.length);
}

std::size_t SystemSocket::Untaken() const {
  return Asked(Descriptor(native_), FIONREAD);
}

std::uint32_t SystemSocket::SegmentsReceived() const {
  tcp_info info{};
  socklen_t size = sizeof info;
  if (getsockopt(Descriptor(native_), IPPROTO_TCP, TCP_INFO, &info, &size) != 0) {
    throw std::runtime_error("the socket tells nothing of its connection");
  }
  return info.tcpi_data_segs_in;
}

void SystemSocket::AcknowledgeNow() const {
  const int yes = 1;
  // Of a connection that has ended nothing is owed.
  static_cast<void>(setsockopt(Descriptor(native_), IPPROTO_TCP, TCP_QUICKACK, &yes, sizeof yes));
}

std::size_t SystemSocket::Undelivered() const {
  return Asked(Descriptor(native_), TIOCOUTQ);
}

Endpoint SystemSocket::Local() const {
  SystemAddress address = NoAddress();
  getsockname(Descriptor(native_), &address.plain, &address.length);
  return EndpointOf(address);
}

Endpoint SystemSocket::Remote() const {
  SystemAddress address = NoAddress();
  getpeername(Descriptor(native_), &address.plain, &address.length);
  return EndpointOf(address);
}

void SystemSocket::ShutDownSending() {
  shutdown(Descriptor(native_), SHUT_WR);
}

void SystemSocket::Close() {
  if (IsOpen()) close(Descriptor(std::exchange(native_, kNone)));
}

void SystemSocket::Reset() {
  const linger at_once{1, 0};
  setsockopt(Descriptor(native_), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  Close();
}

SystemName::~SystemName() {
  if (native_ != kNone) close(Descriptor(native_));
}

bool SystemName::Take(std::string_view name) {
  if (native_ == kNone) native_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  name.copy(address.sun_path + 1, sizeof address.sun_path - 1);  // after a NUL: no file
  const std::size_t length = offsetof(sockaddr_un, sun_path) + 1 + name.size();
  return bind(Descriptor(native_), reinterpret_cast<const sockaddr*>(&address),
              static_cast<socklen_t>(length)) == 0;
}

}  // namespace trabex
