// The socket calls that are alike on every system.
#include "platform/sockets.h"

#include "platform/common/socket_table.h"
#include "platform/common/system_address.h"
#include "platform/permissions.h"
// Those of the system.
#include "socket_calls.h"
#include "sockets_impl.h"

namespace trabex {

using socket_error::kNotSocket;

namespace {

constexpr int kNotPermitted = 10013;

}  // namespace

Sockets::~Sockets() = default;

int Sockets::Close(SocketHandle socket) {
  if (impl_->Find(socket) == nullptr) return kNotSocket;
  impl_->Remove(socket);
  return 0;
}

int Sockets::Bind(SocketHandle socket, const Endpoint& local) {
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  if (!IsOfFamily(local, entry->family)) return socket_error::kAddressFamily;
  SystemAddress address(local);
  const int error = Outcome(bind(entry->native, address.Get(), address.Size()));
  if (error != kNotPermitted) return error;
  const RootRights rights;  // for a low port while the program starts
  return Outcome(bind(entry->native, address.Get(), address.Size()));
}

int Sockets::BindExclusively(SocketHandle socket, const Endpoint& local) {
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  const int error = SetOption(entry->native, SOL_SOCKET, kExclusiveBind);
  return error != 0 ? error : Bind(socket, local);
}

int Sockets::Listen(SocketHandle socket, int backlog) {
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  // Accepted sockets have this option from their listener. Where it fails, listen says why.
  SetOption(entry->native, IPPROTO_TCP, TCP_NODELAY);
  const int length = backlog > 0 ? backlog : kMaxBacklog;
  if (const int error = Outcome(listen(entry->native, length)); error != 0) return error;
  entry->role = Impl::Role::kListening;
  return impl_->Register(socket, *entry);
}

bool Sockets::Drained(SocketHandle socket) const {
  const Impl::Entry* const entry = impl_->Find(socket);
  return entry != nullptr && entry->drained;
}

int Sockets::LocalEndpoint(SocketHandle socket, Endpoint& local) {
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  SystemAddress address;
  const int error = Outcome(getsockname(entry->native, address.Get(), address.SizePlace()));
  if (error == 0) local = address.ToEndpoint();
  return error;
}

int Sockets::RemoteEndpoint(SocketHandle socket, Endpoint& remote) {
  Impl::Entry* const entry = impl_->Find(socket);
  if (entry == nullptr) return kNotSocket;
  SystemAddress address;
  const int error = Outcome(getpeername(entry->native, address.Get(), address.SizePlace()));
  if (error == 0) remote = address.ToEndpoint();
  return error;
}

int Sockets::SendBufferSize(SocketHandle socket, int& bytes) {
  Impl::Entry* const entry = impl_->Find(socket);
  return entry == nullptr ? kNotSocket : GetOption(entry->native, SOL_SOCKET, SO_SNDBUF, bytes);
}

int Sockets::ReceiveBufferSize(SocketHandle socket, int& bytes) {
  Impl::Entry* const entry = impl_->Find(socket);
  return entry == nullptr ? kNotSocket : GetOption(entry->native, SOL_SOCKET, SO_RCVBUF, bytes);
}

int Sockets::AllowBroadcast(SocketHandle socket) {
  Impl::Entry* const entry = impl_->Find(socket);
  return entry == nullptr ? kNotSocket : SetOption(entry->native, SOL_SOCKET, SO_BROADCAST);
}

}  // namespace trabex
