#include "support/system_socket.h"

#include <stdexcept>
#include <string>
#include <utility>

#include "platform/common/system_address.h"
#include "platform/windows/sockets/ready_sockets.h"
#include "platform/windows/win.h"

namespace trabex {

namespace {

// Sockets may be made before the program's own part has asked the system for them.
void StartSockets() {
  static const int result = [] {
    WSADATA data{};
    return WSAStartup(MAKEWORD(2, 2), &data);
  }();
  if (result != 0) throw std::runtime_error("no sockets for the test");
}

SOCKET SocketOf(std::intptr_t native) {
  return static_cast<SOCKET>(native);
}

void MakeNonBlocking(SOCKET socket) {
  u_long on = 1;
  ioctlsocket(socket, static_cast<long>(FIONBIO), &on);
}

// Waits until the socket is ready for reading or for writing, or its connect has failed.
struct Awaited {
  bool readable = false;
  bool writable = false;
};
Awaited Await(SOCKET socket, bool reading, std::chrono::milliseconds limit) {
  fd_set wanted{};
  FD_SET(socket, &wanted);
  fd_set failed = wanted;
  timeval time{static_cast<long>(limit.count() / 1000), static_cast<long>(limit.count() % 1000 * 1000)};
  const int count =
      select(0, reading ? &wanted : nullptr, reading ? nullptr : &wanted, reading ? nullptr : &failed, &time);
  if (count <= 0 || (!reading && FD_ISSET(socket, &failed) != 0)) return {};
  return {reading, !reading};
}

}  // namespace

SystemSocket::SystemSocket(Transport transport, AddressFamily family) {
  StartSockets();
  const bool tcp = transport == Transport::kTcp;
  const SOCKET socket = WSASocketW(family == AddressFamily::kIPv6 ? AF_INET6 : AF_INET,
                                   tcp ? SOCK_STREAM : SOCK_DGRAM, tcp ? IPPROTO_TCP : IPPROTO_UDP, nullptr,
                                   0, WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
  if (socket == INVALID_SOCKET) throw std::runtime_error("no socket for the test");
  MakeNonBlocking(socket);
  native_ = static_cast<std::intptr_t>(socket);
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
  if (setsockopt(SocketOf(native_), level, name, reinterpret_cast<const char*>(&value), sizeof value) != 0) {
    throw std::runtime_error("the test cannot set a socket's option");
  }
}

void SystemSocket::ShareAddress() {
  SetOption(SOL_SOCKET, SO_REUSEADDR, 1);
}

// This system leaves the choice to the connect in any case.
void SystemSocket::ChoosePortAtConnect() {}

bool SystemSocket::Bind(const Endpoint& local) {
  SystemAddress address(local);
  return bind(SocketOf(native_), address.Get(), address.Size()) == 0;
}

bool SystemSocket::Listen(int backlog) {
  return listen(SocketOf(native_), backlog) == 0;
}

SystemSocket SystemSocket::Accept() {
  const SOCKET socket = accept(SocketOf(native_), nullptr, nullptr);
  if (socket == INVALID_SOCKET) return {};
  MakeNonBlocking(socket);
  SystemSocket accepted(static_cast<std::intptr_t>(socket));
  accepted.SetOption(IPPROTO_TCP, TCP_NODELAY, 1);
  return accepted;
}

void SystemSocket::LimitReceiveBuffer(int bytes) {
  SetOption(SOL_SOCKET, SO_RCVBUF, bytes);
}

bool SystemSocket::Connect(const Endpoint& remote) {
  SystemAddress address(remote);
  return connect(SocketOf(native_), address.Get(), address.Size()) == 0 ||
         WSAGetLastError() == WSAEWOULDBLOCK;
}

bool SystemSocket::Connected(std::chrono::milliseconds limit) {
  if (!Await(SocketOf(native_), false, limit).writable) return false;
  SetOption(IPPROTO_TCP, TCP_NODELAY, 1);
  return true;
}

void SystemSocket::AwaitReadable(std::chrono::milliseconds limit) const {
  Await(SocketOf(native_), true, limit);
}

SystemSocket::Outcome SystemSocket::Receive(std::span<char> buffer, std::size_t& received) {
  const int count = recv(SocketOf(native_), buffer.data(), static_cast<int>(buffer.size()), 0);
  received = count > 0 ? static_cast<std::size_t>(count) : 0;
  if (count > 0) return Outcome::kData;
  if (count == 0) return Outcome::kEnd;
  return WSAGetLastError() == WSAEWOULDBLOCK ? Outcome::kNothingYet : Outcome::kReset;
}

std::size_t SystemSocket::Send(std::string_view bytes) {
  const int count = send(SocketOf(native_), bytes.data(), static_cast<int>(bytes.size()), 0);
  return count > 0 ? static_cast<std::size_t>(count) : 0;
}

bool SystemSocket::ReceiveFrom(std::span<char> buffer, std::size_t& received, Endpoint& from) {
  SystemAddress address;
  const int count = recvfrom(SocketOf(native_), buffer.data(), static_cast<int>(buffer.size()), 0,
                             address.Get(), address.SizePlace());
  if (count < 0) return false;
  received = static_cast<std::size_t>(count);
  from = address.ToEndpoint();
  return true;
}

void SystemSocket::SendTo(std::string_view bytes, const Endpoint& to) {
  SystemAddress address(to);
  sendto(SocketOf(native_), bytes.data(), static_cast<int>(bytes.size()), 0, address.Get(), address.Size());
}

std::size_t SystemSocket::Untaken() const {
  u_long count = 0;
  return ioctlsocket(SocketOf(native_), FIONREAD, &count) == 0 ? count : 0;
}

std::uint32_t SystemSocket::SegmentsReceived() const {
  throw std::runtime_error("the socket tells nothing of its connection");
}

void SystemSocket::AcknowledgeNow() const {}

// What goes to this machine itself has arrived when it is sent.
std::size_t SystemSocket::Undelivered() const {
  return 0;
}

Endpoint SystemSocket::Local() const {
  SystemAddress address;
  getsockname(SocketOf(native_), address.Get(), address.SizePlace());
  return address.ToEndpoint();
}

Endpoint SystemSocket::Remote() const {
  SystemAddress address;
  getpeername(SocketOf(native_), address.Get(), address.SizePlace());
  return address.ToEndpoint();
}

void SystemSocket::ShutDownSending() {
  shutdown(SocketOf(native_), SD_SEND);
}

void SystemSocket::Close() {
  if (IsOpen()) closesocket(SocketOf(std::exchange(native_, kNone)));
}

void SystemSocket::Reset() {
  const linger at_once{1, 0};
  setsockopt(SocketOf(native_), SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&at_once),
             sizeof at_once);
  Close();
}

SystemName::~SystemName() {
  if (native_ != kNone) CloseHandle(reinterpret_cast<HANDLE>(native_));
}

bool SystemName::Take(std::string_view name) {
  const HANDLE handle = CreateMutexW(nullptr, FALSE, Wide(name).c_str());
  if (handle == nullptr) return false;
  if (GetLastError() == ERROR_ALREADY_EXISTS) {
    CloseHandle(handle);
    return false;
  }
  native_ = reinterpret_cast<std::intptr_t>(handle);
  return true;
}

}  // namespace trabex
