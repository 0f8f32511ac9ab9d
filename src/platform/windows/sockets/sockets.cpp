// The socket calls on Windows.
#include "platform/sockets.h"

// In this order: the second needs what the first has.
#include "platform/windows/win.h"
//
#include <iphlpapi.h>
#include <mstcpip.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <limits>
#include <memory>
#include <vector>

#include "platform/common/system_address.h"
#include "platform/device_error.h"
#include "platform/windows/sockets/socket_calls.h"
#include "platform/windows/sockets/sockets_impl.h"
#include "platform/windows/sockets/tcp_info.h"

namespace trabex {

namespace {

using socket_error::kNotSocket;
using socket_error::kWouldBlock;

// The system takes as much as one call gives it, however much that is, as long as it holds less than its buffer's size.
// In pieces a send stops near that size.
constexpr std::size_t kMaxSendPiece = 65536;
// What the system's headers here do not have yet.
constexpr DWORD kNoResetsOfDatagrams = _WSAIOW(IOC_VENDOR, 12);
constexpr std::size_t kMaxCall = std::numeric_limits<int>::max();

template <class Input>
int Control(SOCKET socket, DWORD code, Input input) {
  DWORD size = 0;
  return Outcome(WSAIoctl(socket, code, &input, sizeof input, nullptr, 0, &size, nullptr, nullptr));
}

// Otherwise the system tries for two seconds to reach a port of this machine on which nobody listens.
void RefuseAtOnce(SOCKET socket) {
  TCP_INITIAL_RTO_PARAMETERS parameters{};
  parameters.Rtt = TCP_INITIAL_RTO_UNSPECIFIED_RTT;
  parameters.MaxSynRetransmissions = TCP_INITIAL_RTO_NO_SYN_RETRANSMISSIONS;
  Control(socket, SIO_TCP_INITIAL_RTO, parameters);  // a system that cannot is slower, no more
}

bool IsLoopback(const IPAddress& address) {
  return address.IsIPv4() ? (address.Number() >> 24) == 127 : address == kIPv6Loopback;
}

}  // namespace

Sockets::Sockets(EventLoop& loop) : loop_(loop), impl_(std::make_unique<Impl>(loop)) {}

int Sockets::Open(Transport transport, AddressFamily family, SocketHandle& socket) {
  const bool tcp = transport == Transport::kTcp;
  const bool ipv6 = family == AddressFamily::kIPv6;
  const SOCKET native =
      WSASocketW(ipv6 ? AF_INET6 : AF_INET, tcp ? SOCK_STREAM : SOCK_DGRAM, tcp ? IPPROTO_TCP : IPPROTO_UDP,
                 nullptr, 0, WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
  if (native == INVALID_SOCKET) return WSAGetLastError();
  u_long non_blocking = 1;
  int error = Outcome(ioctlsocket(native, static_cast<long>(FIONBIO), &non_blocking));
  // What the system does without the option is a setting of the machine.
  if (error == 0 && ipv6) error = SetOption(native, IPPROTO_IPV6, IPV6_V6ONLY);
  if (error != 0) {
    closesocket(native);
    return error;
  }
  // Otherwise the answer of a host that takes no datagrams would end the receiving of all.
  if (!tcp) Control(native, kNoResetsOfDatagrams, BOOL{FALSE});
  socket = impl_->Add(native, family, tcp ? Impl::Role::kFresh : Impl::Role::kDatagram);
  return 0;
}

int Sockets::Watch(SocketHandle socket, SocketSink* sink) {
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  entry->sink = sink;
  if (sink == nullptr) return 0;
  // An accepted socket, or one for datagrams, sends messages from the first watch on.
  if (entry->role == Impl::Role::kStream || entry->role == Impl::Role::kDatagram) {
    if (const int error = impl_->Register(socket, *entry); error != 0) return error;
  }
  entry->drained = false;
  entry->accept_armed = true;
  impl_->MakeDue(socket, *entry);
  return 0;
}

int Sockets::Accept(SocketHandle listener, SocketHandle& accepted, Endpoint* peer) {
  Impl::Entry* const entry = impl_->Find(listener);
  if (entry == nullptr) return kNotSocket;
  if (!impl_->table.MakeRoom()) {
    entry->accept_armed = true;
    impl_->MakeDue(listener, *entry);
    return socket_error::kNoBufferSpace;
  }
  SystemAddress address;
  const SOCKET native = accept(entry->native, address.Get(), address.SizePlace());
  const int error = native == INVALID_SOCKET ? WSAGetLastError() : 0;
  entry->accept_armed = true;
  // The caller has gone before it was let in; Wine then cannot tell who it was.
  if (error == WSAECONNRESET || error == WSAECONNABORTED || error == WSAENOTCONN) return WSAEWOULDBLOCK;
  if (error != 0) return error;
  // It has all that the listener has: its messages would come under the listener's number. Ended they leave the
  // socket as it was, non-blocking.
  WSAAsyncSelect(native, impl_->loop.Window(), 0, 0);
  u_long non_blocking = 1;
  ioctlsocket(native, static_cast<long>(FIONBIO), &non_blocking);
  SetHandleInformation(reinterpret_cast<HANDLE>(native), HANDLE_FLAG_INHERIT, 0);
  SetOption(native, IPPROTO_TCP, TCP_NODELAY);
  LetSendsShowProgress(native);
  accepted = impl_->Add(native, entry->family, Impl::Role::kStream);
  impl_->Find(accepted)->write_armed = true;
  // So that the next one finds its place, whatever becomes of the memory.
  impl_->table.MakeRoom();
  if (peer != nullptr) *peer = address.ToEndpoint();
  return 0;
}

int Sockets::Connect(SocketHandle socket, const Endpoint& remote) {
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  if (!IsOfFamily(remote, entry->family)) return socket_error::kAddressFamily;
  if (const int error = SetOption(entry->native, IPPROTO_TCP, TCP_NODELAY); error != 0) return error;
  if (IsLoopback(remote.address)) RefuseAtOnce(entry->native);
  // Before the connect, whose outcome is a message.
  if (const int error = impl_->Register(socket, *entry); error != 0) return error;
  SystemAddress address(remote);
  const int error = Outcome(connect(entry->native, address.Get(), address.Size()));
  if (error != 0 && error != WSAEWOULDBLOCK) return error;
  entry->role = Impl::Role::kConnecting;
  if (error == 0) {
    entry->connect_told = true;
    impl_->MakeDue(socket, *entry);
  }
  return error;
}

int Sockets::ShutDownSending(SocketHandle socket) {
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  const int error = Outcome(shutdown(entry->native, SD_SEND));
  if (error == 0) entry->sending_shut = true;
  return error;
}

int Sockets::Send(SocketHandle socket, std::span<const char> data, std::size_t& sent, bool /*more_follows*/) {
  sent = 0;
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  if (entry->sending_shut) return WSAESHUTDOWN;
  while (sent < data.size()) {
    const auto piece = static_cast<int>(std::min(data.size() - sent, kMaxSendPiece));
    const int count = send(entry->native, data.data() + sent, piece, 0);
    if (count < 0) {
      const int error = WSAGetLastError();
      // The system notifies only of the end of this.
      if (error == WSAEWOULDBLOCK) {
        entry->writable = false;
        entry->write_armed = true;
      }
      return sent > 0 ? 0 : error;
    }
    sent += static_cast<std::size_t>(count);
    entry->taken += static_cast<std::uint64_t>(count);
  }
  return 0;
}

// Nothing is collected here.
void Sockets::SendCollected() {}

int Sockets::Receive(SocketHandle socket, std::span<char> buffer, std::size_t& received) {
  received = 0;
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  if (entry->drained) return kWouldBlock;
  const int count =
      recv(entry->native, buffer.data(), static_cast<int>(std::min(buffer.size(), kMaxCall)), 0);
  const int error = Outcome(count);
  if (error == 0) received = static_cast<std::size_t>(count);
  impl_->NoteReceive(socket, *entry, received, buffer.size(), error);
  return error;
}

int Sockets::ReceiveInto(SocketHandle socket, SplicePipe& /*pipe*/, std::size_t /*limit*/,
                         std::size_t& moved) {
  moved = 0;
  return impl_->Find(socket) == nullptr ? kNotSocket : 0;
}

int Sockets::SendFrom(SocketHandle socket, SplicePipe& /*pipe*/, std::size_t& sent) {
  sent = 0;
  return impl_->Find(socket) == nullptr ? kNotSocket : 0;
}

int Sockets::SendTo(SocketHandle socket, std::span<const char> data, const Endpoint& to) {
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  if (!IsOfFamily(to, entry->family)) return socket_error::kAddressFamily;
  SystemAddress address(to);
  const int error =
      Outcome(sendto(entry->native, data.data(), static_cast<int>(std::min(data.size(), kMaxCall)), 0,
                     address.Get(), address.Size()));
  if (error == WSAEWOULDBLOCK) {
    entry->writable = false;
    entry->write_armed = true;
  }
  return error;
}

int Sockets::ReceiveFrom(SocketHandle socket, std::span<char> buffer, bool peek, std::size_t& received,
                         Endpoint& from) {
  received = 0;
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  SystemAddress address;
  const int count =
      recvfrom(entry->native, buffer.data(), static_cast<int>(std::min(buffer.size(), kMaxCall)),
               peek ? MSG_PEEK : 0, address.Get(), address.SizePlace());
  int error = Outcome(count);
  // The rest of a datagram that is longer is lost, as everywhere.
  if (error == WSAEMSGSIZE) {
    error = 0;
    received = buffer.size();
  } else if (error == 0) {
    received = static_cast<std::size_t>(count);
  }
  impl_->NoteReceive(socket, *entry, received, buffer.size(), error);
  if (error == 0) from = address.ToEndpoint();
  return error;
}

int Sockets::Available(SocketHandle socket, std::size_t& bytes) {
  bytes = 0;
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  if (entry->role == Impl::Role::kDatagram) {
    // The system would give the sum of all.
    std::vector<char> room(65536);
    const int count = recv(entry->native, room.data(), static_cast<int>(room.size()), MSG_PEEK);
    const int error = Outcome(count);
    if (error == 0) bytes = static_cast<std::size_t>(count);
    return error == WSAEWOULDBLOCK ? 0 : error;
  }
  u_long count = 0;
  const int error = Outcome(ioctlsocket(entry->native, FIONREAD, &count));
  bytes = count;
  return error;
}

int Sockets::Unacknowledged(SocketHandle socket, std::size_t& bytes) {
  bytes = 0;
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  TcpInfo info{};
  if (const int error = AskTcpInfo(entry->native, info); error != 0) return error;
  // What was acknowledged stays so, whatever the system counts while it sends again.
  entry->acknowledged = std::max(entry->acknowledged, AcknowledgedBytes(info));
  bytes = static_cast<std::size_t>(entry->taken - std::min(entry->taken, entry->acknowledged));
  return 0;
}

bool Sockets::PeerEnded(SocketHandle socket) const {
  Impl::Entry* const entry = impl_->Find(socket);
  return entry != nullptr && impl_->HasPeerEnded(*entry);
}

int Sockets::LocalAddresses(std::vector<IPAddress>& addresses) {
  addresses.clear();
  constexpr ULONG kFlags = GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER |
                           GAA_FLAG_SKIP_FRIENDLY_NAME;
  // The list may grow between two calls.
  constexpr int kMaxTries = 5;
  std::vector<std::max_align_t> room(1024);
  ULONG error = ERROR_BUFFER_OVERFLOW;
  for (int i = 0; i < kMaxTries && error == ERROR_BUFFER_OVERFLOW; ++i) {
    auto size = static_cast<ULONG>(room.size() * sizeof(std::max_align_t));
    error = GetAdaptersAddresses(AF_UNSPEC, kFlags, nullptr,
                                 reinterpret_cast<IP_ADAPTER_ADDRESSES*>(room.data()), &size);
    if (error == ERROR_BUFFER_OVERFLOW) room.resize(size / sizeof(std::max_align_t) + 1);
  }
  if (error == ERROR_NO_DATA) return 0;
  if (error != ERROR_SUCCESS) return socket_error::kNoBufferSpace;
  for (const auto* adapter = reinterpret_cast<const IP_ADAPTER_ADDRESSES*>(room.data()); adapter != nullptr;
       adapter = adapter->Next) {
    if (adapter->OperStatus != IfOperStatusUp) continue;
    for (const auto* one = adapter->FirstUnicastAddress; one != nullptr; one = one->Next) {
      addresses.push_back(SystemAddress(*one->Address.lpSockaddr).ToEndpoint().address);
    }
  }
  return 0;
}

}  // namespace trabex
