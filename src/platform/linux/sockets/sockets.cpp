// The socket calls on Linux.
#include "platform/sockets.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <limits>
#include <memory>

#include "platform/linux/sockets/socket_errno.h"
#include "platform/linux/sockets/sockets_impl.h"

namespace trabex {

namespace {

using socket_error::kNotSocket;
using socket_error::kWouldBlock;

constexpr int kSendAfterShutdown = 10058;

// These sockets are of IPv4.
sockaddr_in ToSystem(const Endpoint& endpoint) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(endpoint.port);
  address.sin_addr.s_addr = htonl(endpoint.address.Number());
  return address;
}

Endpoint FromSystem(const sockaddr_in& address) {
  return {IPAddress::IPv4(ntohl(address.sin_addr.s_addr)), ntohs(address.sin_port)};
}

sockaddr* Generic(sockaddr_in& address) {
  return reinterpret_cast<sockaddr*>(&address);
}

// Our error number for a call that returned `result`: 0 unless that is negative.
int Outcome(long result) {
  return result < 0 ? SocketErrorOfErrno(errno) : 0;
}

int SetOption(int descriptor, int level, int option) {
  const int on = 1;
  return Outcome(setsockopt(descriptor, level, option, &on, sizeof on));
}

int GetOption(int descriptor, int option, int& value) {
  socklen_t size = sizeof value;
  return Outcome(getsockopt(descriptor, SOL_SOCKET, option, &value, &size));
}

void RaiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

// A call again and again until no signal interrupts it.
template <class Call>
auto Uninterrupted(Call call) {
  for (;;) {
    const auto result = call();
    if (result >= 0 || errno != EINTR) return result;
  }
}

}  // namespace

Sockets::Sockets(EventLoop& loop) : loop_(loop), impl_(std::make_unique<Impl>(loop)) {
  RaiseDescriptorLimit();
  std::signal(SIGPIPE, SIG_IGN);
}

Sockets::~Sockets() = default;

int Sockets::Open(Transport transport, SocketHandle& socket) {
  const bool tcp = transport == Transport::kTcp;
  const int descriptor = ::socket(AF_INET, (tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_NONBLOCK | SOCK_CLOEXEC,
                                  tcp ? IPPROTO_TCP : IPPROTO_UDP);
  if (descriptor < 0) return SocketErrorOfErrno(errno);
  socket = impl_->Add(descriptor, tcp ? Impl::Role::kFresh : Impl::Role::kDatagram);
  return 0;
}

int Sockets::Close(SocketHandle socket) {
  if (impl_->Find(socket) == nullptr) return kNotSocket;
  impl_->Remove(socket);
  return 0;
}

int Sockets::Watch(SocketHandle socket, SocketSink* sink) {
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  entry->sink = sink;
  if (sink == nullptr) return 0;
  if (entry->role == Impl::Role::kListening) {
    impl_->ArmListener(socket, *entry);
  } else if (entry->pending_unwatched) {
    entry->pending_unwatched = false;
    impl_->Rearm(socket, *entry);
  }
  // An accepted socket, or one for datagrams, is put into the set by the first who watches it.
  const bool ready_to_watch = entry->role == Impl::Role::kStream || entry->role == Impl::Role::kDatagram;
  return ready_to_watch ? impl_->Register(socket, *entry) : 0;
}

int Sockets::Bind(SocketHandle socket, const Endpoint& local) {
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  if (!local.address.IsIPv4()) return socket_error::kAddressFamily;
  sockaddr_in address = ToSystem(local);
  return Outcome(bind(entry->descriptor, Generic(address), sizeof address));
}

int Sockets::BindExclusively(SocketHandle socket, const Endpoint& local) {
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  // On this system the option passes over connections of an earlier process that are still in TIME_WAIT, and
  // no more: while another socket listens on the endpoint, binding to it fails as without it.
  const int error = SetOption(entry->descriptor, SOL_SOCKET, SO_REUSEADDR);
  return error != 0 ? error : Bind(socket, local);
}

int Sockets::Listen(SocketHandle socket, int backlog) {
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  // Accepted sockets have this option from their listener. Where it fails, listen says why.
  SetOption(entry->descriptor, IPPROTO_TCP, TCP_NODELAY);
  const int length =
      backlog > 0 ? backlog : std::numeric_limits<int>::max();  // the kernel cuts it to its own
  if (const int error = Outcome(listen(entry->descriptor, length)); error != 0) return error;
  entry->role = Impl::Role::kListening;
  return impl_->Register(socket, *entry);
}

int Sockets::Accept(SocketHandle listener, SocketHandle& accepted, Endpoint* peer) {
  Impl::Entry* const entry = impl_->Find(listener);
  if (entry == nullptr) return kNotSocket;
  sockaddr_in address{};
  socklen_t size = sizeof address;
  const int descriptor = Uninterrupted(
      [&] { return accept4(entry->descriptor, Generic(address), &size, SOCK_NONBLOCK | SOCK_CLOEXEC); });
  const int error = Outcome(descriptor);
  entry->accept_armed = true;
  if (entry->sink != nullptr) impl_->ArmListener(listener, *entry);
  if (error != 0) return error;
  accepted = impl_->Add(descriptor, Impl::Role::kStream);
  impl_->Find(accepted)->write_armed = true;
  if (peer != nullptr) *peer = FromSystem(address);
  return 0;
}

int Sockets::Connect(SocketHandle socket, const Endpoint& remote) {
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  if (!remote.address.IsIPv4()) return socket_error::kAddressFamily;
  if (const int error = SetOption(entry->descriptor, IPPROTO_TCP, TCP_NODELAY); error != 0) return error;
  sockaddr_in address = ToSystem(remote);
  const int result = connect(entry->descriptor, Generic(address), sizeof address);
  const bool under_way = result < 0 && errno == EINPROGRESS;
  // No port is left to connect from: nothing is under way, so no event would follow.
  if (result < 0 && errno == EAGAIN) return socket_error::kNoBufferSpace;
  if (result < 0 && !under_way) return SocketErrorOfErrno(errno);
  entry->role = Impl::Role::kConnecting;
  if (const int error = impl_->Register(socket, *entry); error != 0) return error;
  return under_way ? kWouldBlock : 0;
}

int Sockets::ShutDownSending(SocketHandle socket) {
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  const int error = Outcome(shutdown(entry->descriptor, SHUT_WR));
  if (error == 0) entry->sending_shut = true;
  return error;
}

int Sockets::Send(SocketHandle socket, std::span<const char> data, std::size_t& sent, bool more_follows) {
  sent = 0;
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  const int flags = MSG_NOSIGNAL | (more_follows ? MSG_MORE : 0);
  const ssize_t count =
      Uninterrupted([&] { return send(entry->descriptor, data.data(), data.size(), flags); });
  if (count < 0) {
    const int code = errno;
    if (code == EAGAIN) entry->write_armed = true;
    return code == EPIPE && entry->sending_shut ? kSendAfterShutdown : SocketErrorOfErrno(code);
  }
  sent = static_cast<std::size_t>(count);
  if (sent < data.size()) entry->write_armed = true;
  return 0;
}

int Sockets::Receive(SocketHandle socket, std::span<char> buffer, std::size_t& received) {
  received = 0;
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  if (entry->drained) return kWouldBlock;
  const ssize_t count =
      Uninterrupted([&] { return recv(entry->descriptor, buffer.data(), buffer.size(), 0); });
  const int code = count < 0 ? errno : 0;
  impl_->NoteReceive(socket, *entry, count, buffer.size(), code);
  if (count < 0) return SocketErrorOfErrno(code);
  received = static_cast<std::size_t>(count);
  return 0;
}

int Sockets::SendTo(SocketHandle socket, std::span<const char> data, const Endpoint& to) {
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  if (!to.address.IsIPv4()) return socket_error::kAddressFamily;
  sockaddr_in address = ToSystem(to);
  const ssize_t count = Uninterrupted([&] {
    return sendto(entry->descriptor, data.data(), data.size(), MSG_NOSIGNAL, Generic(address),
                  sizeof address);
  });
  if (count < 0 && errno == EAGAIN) {
    entry->write_armed = true;
    return kWouldBlock;
  }
  return Outcome(count);
}

int Sockets::ReceiveFrom(SocketHandle socket, std::span<char> buffer, bool peek, std::size_t& received,
                         Endpoint& from) {
  received = 0;
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  sockaddr_in address{};
  socklen_t size = sizeof address;
  const ssize_t count = Uninterrupted([&] {
    return recvfrom(entry->descriptor, buffer.data(), buffer.size(), peek ? MSG_PEEK : 0, Generic(address),
                    &size);
  });
  const int code = count < 0 ? errno : 0;
  impl_->NoteReceive(socket, *entry, count, buffer.size(), code);
  if (count < 0) return SocketErrorOfErrno(code);
  received = static_cast<std::size_t>(count);
  from = FromSystem(address);
  return 0;
}

int Sockets::Available(SocketHandle socket, std::size_t& bytes) {
  bytes = 0;
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  int count = 0;
  if (ioctl(entry->descriptor, FIONREAD, &count) != 0) return SocketErrorOfErrno(errno);
  bytes = static_cast<std::size_t>(count);
  return 0;
}

int Sockets::Unacknowledged(SocketHandle socket, std::size_t& bytes) {
  bytes = 0;
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  int count = 0;
  if (ioctl(entry->descriptor, SIOCOUTQ, &count) != 0) return SocketErrorOfErrno(errno);
  bytes = static_cast<std::size_t>(count);
  return 0;
}

bool Sockets::PeerEnded(SocketHandle socket) const {
  const Impl::Entry* const entry = impl_->Find(socket);
  return entry != nullptr && entry->end_seen;
}

int Sockets::LocalEndpoint(SocketHandle socket, Endpoint& local) {
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  sockaddr_in address{};
  socklen_t size = sizeof address;
  if (getsockname(entry->descriptor, Generic(address), &size) != 0) return SocketErrorOfErrno(errno);
  local = FromSystem(address);
  return 0;
}

int Sockets::RemoteEndpoint(SocketHandle socket, Endpoint& remote) {
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  sockaddr_in address{};
  socklen_t size = sizeof address;
  if (getpeername(entry->descriptor, Generic(address), &size) != 0) return SocketErrorOfErrno(errno);
  remote = FromSystem(address);
  return 0;
}

int Sockets::SendBufferSize(SocketHandle socket, int& bytes) {
  Impl::Entry* const entry = impl_->Find(socket);
  return entry == nullptr ? kNotSocket : GetOption(entry->descriptor, SO_SNDBUF, bytes);
}

int Sockets::ReceiveBufferSize(SocketHandle socket, int& bytes) {
  Impl::Entry* const entry = impl_->Find(socket);
  return entry == nullptr ? kNotSocket : GetOption(entry->descriptor, SO_RCVBUF, bytes);
}

int Sockets::AllowBroadcast(SocketHandle socket) {
  Impl::Entry* const entry = impl_->Find(socket);
  return entry == nullptr ? kNotSocket : SetOption(entry->descriptor, SOL_SOCKET, SO_BROADCAST);
}

int Sockets::LocalAddresses(std::vector<IPAddress>& addresses) {
  addresses.clear();
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return SocketErrorOfErrno(errno);
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, &freeifaddrs);
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
    if ((entry->ifa_flags & IFF_UP) == 0) continue;
    sockaddr_in address{};
    std::memcpy(&address, entry->ifa_addr, sizeof address);
    addresses.push_back(FromSystem(address).address);
  }
  return 0;
}

}  // namespace trabex
