// The socket calls on Linux.
#include "platform/sockets.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <memory>

#include "platform/common/system_address.h"
#include "platform/linux/sockets/socket_calls.h"
#include "platform/linux/sockets/sockets_impl.h"

namespace trabex {

namespace {

using socket_error::kNotSocket;
using socket_error::kWouldBlock;

constexpr int kSendAfterShutdown = 10058;

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

int Sockets::Open(Transport transport, AddressFamily family, SocketHandle& socket) {
  const bool tcp = transport == Transport::kTcp;
  const bool ipv6 = family == AddressFamily::kIPv6;
  const int descriptor =
      ::socket(ipv6 ? AF_INET6 : AF_INET, (tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_NONBLOCK | SOCK_CLOEXEC,
               tcp ? IPPROTO_TCP : IPPROTO_UDP);
  if (descriptor < 0) return SocketErrorOfErrno(errno);
  // What the system does without the option is a setting of the machine.
  if (ipv6) {
    if (const int error = SetOption(descriptor, IPPROTO_IPV6, IPV6_V6ONLY); error != 0) {
      close(descriptor);
      return error;
    }
  }
  socket = impl_->Add(descriptor, family, tcp ? Impl::Role::kFresh : Impl::Role::kDatagram);
  return 0;
}

int Sockets::Watch(SocketHandle socket, SocketSink* sink) {
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  entry->sink = sink;
  if (sink == nullptr) return 0;
  if (entry->role == Impl::Role::kListening) {
    entry->accept_armed = true;
    impl_->ArmListener(socket, *entry);
  } else if (entry->pending_unwatched) {
    entry->pending_unwatched = false;
    impl_->Rearm(socket, *entry);
  }
  // An accepted socket, or one for datagrams, is put into the set by the first who watches it.
  const bool ready_to_watch = entry->role == Impl::Role::kStream || entry->role == Impl::Role::kDatagram;
  return ready_to_watch ? impl_->Register(socket, *entry) : 0;
}

int Sockets::Accept(SocketHandle listener, SocketHandle& accepted, Endpoint* peer) {
  Impl::Entry* const entry = impl_->Find(listener);
  if (entry == nullptr) return kNotSocket;
  SystemAddress address;
  int descriptor = -1;
  int error = socket_error::kNoBufferSpace;
  if (impl_->table.MakeRoom()) {
    descriptor = Uninterrupted([&] {
      return accept4(entry->native, address.Get(), address.SizePlace(), SOCK_NONBLOCK | SOCK_CLOEXEC);
    });
    error = Outcome(descriptor);
  }
  entry->accept_armed = true;
  entry->accepted = error == 0;
  if (entry->sink != nullptr) impl_->ArmListener(listener, *entry);
  if (error != 0) return error;
  accepted = impl_->Add(descriptor, entry->family, Impl::Role::kStream);
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
  SystemAddress address(remote);
  const int result = connect(entry->native, address.Get(), address.Size());
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
  return Outcome(impl_->ShutDown(socket, *entry));
}

int Sockets::Send(SocketHandle socket, std::span<const char> data, std::size_t& sent, bool more_follows) {
  sent = 0;
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  if (impl_->Collect(socket, *entry, data)) {
    sent = data.size();
    return 0;
  }
  if (entry->unsent != SendBatch::kNone) {
    entry->write_armed = true;
    return kWouldBlock;
  }
  const int flags = MSG_NOSIGNAL | (more_follows ? MSG_MORE : 0);
  const ssize_t count = Uninterrupted([&] { return send(entry->native, data.data(), data.size(), flags); });
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
  const ssize_t count = Uninterrupted([&] { return recv(entry->native, buffer.data(), buffer.size(), 0); });
  const int code = count < 0 ? errno : 0;
  impl_->NoteReceive(socket, *entry, count, buffer.size(), code);
  if (count < 0) return SocketErrorOfErrno(code);
  received = static_cast<std::size_t>(count);
  return 0;
}

int Sockets::ReceiveInto(SocketHandle socket, SplicePipe& pipe, std::size_t limit, std::size_t& moved) {
  moved = 0;
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  // Behind an urgent byte the kernel moves nothing.
  if (!entry->much_waits || entry->urgent || entry->drained) return 0;
  const std::size_t count = std::min(limit, SplicePipe::kCapacity);
  const ssize_t result = Uninterrupted([&] {
    return splice(entry->native, nullptr, pipe.write_end_, nullptr, count, SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
  });
  const int code = result < 0 ? errno : 0;
  if (result == 0 || code == EAGAIN || code == EINVAL) {
    entry->much_waits = false;
    return 0;
  }
  // It may have taken less than is there, so that it never says that the socket is empty.
  const std::size_t asked = result > 0 ? static_cast<std::size_t>(result) : count;
  impl_->NoteReceive(socket, *entry, result, asked, code);
  if (result < 0) return SocketErrorOfErrno(code);
  moved = pipe.size_ = static_cast<std::size_t>(result);
  return 0;
}

int Sockets::SendFrom(SocketHandle socket, SplicePipe& pipe, std::size_t& sent) {
  sent = 0;
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  const bool waits = entry->unsent != SendBatch::kNone;
  if (waits && (impl_->batch.IsBlocked(entry->unsent) || !impl_->SendUnsent(socket, *entry, true))) {
    entry->write_armed = true;
    return kWouldBlock;
  }
  impl_->SendDue();
  while (!pipe.IsEmpty()) {
    const ssize_t count = Uninterrupted([&] {
      return splice(pipe.read_end_, nullptr, entry->native, nullptr, pipe.size_,
                    SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
    });
    if (count < 0) {
      const int code = errno;
      if (code != EAGAIN)
        return code == EPIPE && entry->sending_shut ? kSendAfterShutdown : SocketErrorOfErrno(code);
      entry->write_armed = true;
      return sent > 0 ? 0 : kWouldBlock;
    }
    sent += static_cast<std::size_t>(count);
    pipe.size_ -= static_cast<std::size_t>(count);
  }
  return 0;
}

int Sockets::SendTo(SocketHandle socket, std::span<const char> data, const Endpoint& to) {
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  if (!IsOfFamily(to, entry->family)) return socket_error::kAddressFamily;
  SystemAddress address(to);
  const ssize_t count = Uninterrupted([&] {
    return sendto(entry->native, data.data(), data.size(), MSG_NOSIGNAL, address.Get(), address.Size());
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
  SystemAddress address;
  const ssize_t count = Uninterrupted([&] {
    return recvfrom(entry->native, buffer.data(), buffer.size(), peek ? MSG_PEEK : 0, address.Get(),
                    address.SizePlace());
  });
  const int code = count < 0 ? errno : 0;
  impl_->NoteReceive(socket, *entry, count, buffer.size(), code);
  if (count < 0) return SocketErrorOfErrno(code);
  received = static_cast<std::size_t>(count);
  from = address.ToEndpoint();
  return 0;
}

int Sockets::Available(SocketHandle socket, std::size_t& bytes) {
  bytes = 0;
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  int count = 0;
  if (ioctl(entry->native, FIONREAD, &count) != 0) return SocketErrorOfErrno(errno);
  bytes = static_cast<std::size_t>(count);
  return 0;
}

int Sockets::Unacknowledged(SocketHandle socket, std::size_t& bytes) {
  bytes = 0;
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  int count = 0;
  if (ioctl(entry->native, SIOCOUTQ, &count) != 0) return SocketErrorOfErrno(errno);
  bytes = static_cast<std::size_t>(count);
  if (entry->unsent != SendBatch::kNone) bytes += impl_->batch.Bytes(entry->unsent).size();
  return 0;
}

void Sockets::SendCollected() {
  impl_->SendDue();
}

bool Sockets::PeerEnded(SocketHandle socket) const {
  const Impl::Entry* const entry = impl_->Find(socket);
  return entry != nullptr && entry->end_seen;
}

int Sockets::LocalAddresses(std::vector<IPAddress>& addresses) {
  addresses.clear();
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return SocketErrorOfErrno(errno);
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, &freeifaddrs);
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || (entry->ifa_flags & IFF_UP) == 0) continue;
    const auto family = entry->ifa_addr->sa_family;
    if (family != AF_INET && family != AF_INET6) continue;
    addresses.push_back(SystemAddress(*entry->ifa_addr).ToEndpoint().address);
  }
  return 0;
}

}  // namespace trabex
