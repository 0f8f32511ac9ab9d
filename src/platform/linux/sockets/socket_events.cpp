// From epoll's readiness to the five notifications; the rules are in sockets_impl.h.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "platform/linux/sockets/socket_errno.h"
#include "platform/linux/sockets/sockets_impl.h"

namespace trabex {

namespace {

constexpr std::uint32_t kStreamEvents = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLPRI | EPOLLET;
constexpr std::uint32_t kListenerEvents = EPOLLIN;
// Of one listener in one iteration.
constexpr int kMaxAccepts = 16;
// Of bytes that wait to be received: so many that it pays to move them through a pipe.
constexpr std::size_t kMuch = 16384;
constexpr std::uint32_t kEnd = EPOLLRDHUP | EPOLLHUP | EPOLLERR;

}  // namespace

Sockets::Impl::Impl(EventLoop& event_loop) : loop(event_loop.GetImpl()), source(loop.AddSource(*this)) {}

Sockets::Impl::~Impl() {
  SendDue();
  for (std::size_t i = 0; i < table.Size(); ++i) {
    if (const int descriptor = table.At(i).native; descriptor >= 0) close(descriptor);
  }
  loop.RemoveSource(source);
}

void Sockets::Impl::Remove(SocketHandle socket) {
  Entry& entry = *Find(socket);
  if (entry.unsent != SendBatch::kNone && !SendUnsent(socket, entry, false)) batch.Release(entry.unsent);
  // Closing takes it out of the epoll set.
  close(entry.native);
  table.Remove(socket);
}

EventTarget Sockets::Impl::Target(SocketHandle socket) const {
  return {source, static_cast<std::uint32_t>(socket.index), socket.generation};
}

int Sockets::Impl::Register(SocketHandle socket, Entry& entry) {
  if (entry.registered) return 0;
  const std::uint32_t events = entry.role == Role::kListening ? kListenerEvents : kStreamEvents;
  const int code = loop.Control(EPOLL_CTL_ADD, entry.native, events, Target(socket));
  if (code != 0) return SocketErrorOfErrno(code);
  entry.registered = true;
  return 0;
}

void Sockets::Impl::Rearm(SocketHandle socket, Entry& entry) {
  if (entry.rearm_due || !entry.registered) return;
  try {
    to_rearm.push_back(socket);
    entry.rearm_due = true;
  } catch (const std::bad_alloc&) {
    // At once will do; it only costs more when it comes again in this iteration.
    loop.Control(EPOLL_CTL_MOD, entry.native, kStreamEvents, Target(socket));
  }
}

void Sockets::Impl::BeforeWait() {
  for (const SocketHandle socket : to_rearm) {
    Entry* const entry = Find(socket);
    if (entry == nullptr || !entry->rearm_due) continue;
    entry->rearm_due = false;
    loop.Control(EPOLL_CTL_MOD, entry->native, kStreamEvents, Target(socket));
  }
  to_rearm.clear();
}

void Sockets::Impl::DisarmListener(SocketHandle socket, Entry& entry) {
  entry.disarmed = true;
  loop.Control(EPOLL_CTL_MOD, entry.native, 0, Target(socket));
}

void Sockets::Impl::ArmListener(SocketHandle socket, Entry& entry) {
  if (!entry.disarmed) return;
  entry.disarmed = false;
  loop.Control(EPOLL_CTL_MOD, entry.native, kListenerEvents, Target(socket));
}

void Sockets::Impl::SetDrained(Entry& entry) {
  entry.drained = entry.registered;  // otherwise no event would come for later data
  entry.drained_iteration = loop.iteration;
}

void Sockets::Impl::NoteReceive(SocketHandle socket, Entry& entry, std::int64_t count, std::size_t size,
                                int code) {
  entry.read_armed = true;
  if (entry.role == Role::kDatagram) {
    if (count >= 0) Rearm(socket, entry);  // its size says nothing about the next one
    return;
  }
  if (count > 0) {
    entry.much_waits = static_cast<std::size_t>(count) == size && size >= kMuch;
    const bool more = static_cast<std::size_t>(count) == size || entry.end_seen || entry.urgent;
    if (more) {
      if (static_cast<std::size_t>(count) < size)
        entry.end_reached = entry.end_seen && !entry.broken && !entry.urgent;
      Rearm(socket, entry);
    } else {
      SetDrained(entry);
    }
    return;
  }
  if (count < 0 && code == EAGAIN) {
    SetDrained(entry);
    return;
  }
  // The end. FD_CLOSE comes from the loop, also when the owner has seen the end here.
  entry.end_seen = true;
  if (count < 0) entry.close_error = SocketErrorOfErrno(code);
  Rearm(socket, entry);
}

bool Sockets::Impl::Collect(SocketHandle socket, Entry& entry, std::span<const char> data) {
  if (entry.role != Role::kStream || entry.sending_shut || entry.broken || !loop.in_iteration) return false;
  const bool waits = entry.unsent != SendBatch::kNone;
  if (waits && batch.IsBlocked(entry.unsent)) return false;
  if (data.size() + (waits ? batch.Bytes(entry.unsent).size() : 0) > SendBatch::kMaxBytes) {
    // A long send takes its time, so the others go first. What this socket has said goes out with it.
    if (waits) SendUnsent(socket, entry, true);
    SendDue();
    return false;
  }
  try {
    if (!waits) {
      if (batch.IsFull()) SendDue();
      entry.unsent = batch.Take(socket);
    }
    batch.Append(entry.unsent, {data.data(), data.size()});
    return true;
  } catch (const std::bad_alloc&) {
    // The kernel has room for what there is none for here.
    if (entry.unsent != SendBatch::kNone) SendUnsent(socket, entry, true);
    return false;
  }
}

bool Sockets::Impl::SendUnsent(SocketHandle socket, Entry& entry, bool more_follows) {
  const std::string_view bytes = batch.Bytes(entry.unsent);
  ssize_t count = 0;
  do {
    count = send(entry.native, bytes.data(), bytes.size(), MSG_NOSIGNAL | (more_follows ? MSG_MORE : 0));
  } while (count < 0 && errno == EINTR);
  const bool full = count < 0 ? errno == EAGAIN : static_cast<std::size_t>(count) < bytes.size();
  if (full) {
    batch.Block(entry.unsent, count > 0 ? static_cast<std::size_t>(count) : 0);
    return false;
  }
  if (count < 0) {
    // Bytes are lost, so this is the connection's end. Its owner is notified as of one that the peer broke, when
    // all is read.
    entry.close_error = SocketErrorOfErrno(errno);
    shutdown(entry.native, SHUT_RDWR);
    entry.end_seen = true;
    entry.broken = true;
    entry.drained = false;
    Rearm(socket, entry);
  }
  batch.Release(std::exchange(entry.unsent, SendBatch::kNone));
  return true;
}

void Sockets::Impl::SendDue() {
  while (const SendBatch::Slot slot = batch.NextDue()) {
    const SocketHandle socket = batch.SocketOf(slot);
    SendUnsent(socket, *Find(socket), false);
  }
}

int Sockets::Impl::ShutDown(SocketHandle socket, Entry& entry) {
  // The end goes into the last packet.
  if (entry.unsent != SendBatch::kNone && !SendUnsent(socket, entry, true)) {
    entry.sending_shut = entry.shut_down_due = true;
    return 0;
  }
  const int result = shutdown(entry.native, SHUT_WR);
  if (result == 0) entry.sending_shut = true;
  return result;
}

void Sockets::Impl::OnBroken(std::uint32_t index, std::uint32_t generation) {
  if (Entry* const entry = Find({static_cast<std::int32_t>(index), generation})) entry->broken = true;
}

bool Sockets::Impl::OnReady(std::uint32_t index, std::uint32_t generation, std::uint32_t events) {
  const SocketHandle socket{static_cast<std::int32_t>(index), generation};
  Entry* const entry = Find(socket);
  if (entry == nullptr) return false;
  if (entry->sink == nullptr) {
    // No flag is cleared, so that the next sink is notified of all of it.
    entry->pending_unwatched = true;
    entry->drained = false;
    if (entry->role == Role::kListening) DisarmListener(socket, *entry);
    return false;
  }
  switch (entry->role) {
    case Role::kListening:
      return OnListenerReady(socket, events);
    case Role::kDatagram:
      return OnDatagramReady(socket, events);
    case Role::kConnecting:
      return OnConnectReady(socket, events);
    case Role::kStream:
      return OnStreamReady(socket, events);
    case Role::kFresh:
    case Role::kFailed:
      break;
  }
  return false;
}

bool Sockets::Impl::OnListenerReady(SocketHandle socket, std::uint32_t events) {
  Entry& listener = *Find(socket);
  if ((events & EPOLLIN) == 0) return false;
  if (!listener.accept_armed) {
    DisarmListener(socket, listener);
    return false;
  }
  bool called = false;
  // When connections keep the loop busy, new ones do not wait for an iteration each.
  const int most = loop.EventCount() > 1 ? kMaxAccepts : 1;
  for (int i = 0; i < most; ++i) {
    Entry* const entry = Find(socket);
    if (entry == nullptr || entry->sink == nullptr || !entry->accept_armed || (i > 0 && !entry->accepted))
      break;
    entry->accept_armed = entry->accepted = false;
    if (Notify(socket, SocketEvent::kAccept, 0)) called = true;
  }
  return called;
}

bool Sockets::Impl::OnDatagramReady(SocketHandle socket, std::uint32_t events) {
  Entry& entry = *Find(socket);
  const bool write = entry.write_armed && (events & EPOLLOUT) != 0;
  const bool read = entry.read_armed && (events & EPOLLIN) != 0;
  if (write) entry.write_armed = false;
  if (read) entry.read_armed = false;
  bool called = read && Notify(socket, SocketEvent::kRead, 0);
  if (write && Notify(socket, SocketEvent::kWrite, 0)) called = true;
  return called;
}

bool Sockets::Impl::OnConnectReady(SocketHandle socket, std::uint32_t events) {
  Entry& entry = *Find(socket);
  if ((events & (EPOLLOUT | EPOLLERR | EPOLLHUP)) == 0) return false;
  int code = 0;
  socklen_t size = sizeof code;
  const bool failed = (events & (EPOLLERR | EPOLLHUP)) != 0;
  if (failed && getsockopt(entry.native, SOL_SOCKET, SO_ERROR, &code, &size) != 0) code = errno;
  if (code != 0) {
    entry.role = Role::kFailed;
    return Notify(socket, SocketEvent::kConnect, SocketErrorOfErrno(code));
  }
  entry.role = Role::kStream;
  entry.write_armed = true;
  const bool called = Notify(socket, SocketEvent::kConnect, 0);
  if (Entry* const after = Find(socket)) {
    if (after->sink == nullptr) {
      after->pending_unwatched = true;
    } else {
      OnStreamReady(socket, events);
    }
  }
  return called;
}

// Reading comes first, so that what the peer sent before it broke the connection is received.
bool Sockets::Impl::OnStreamReady(SocketHandle socket, std::uint32_t events) {
  bool called = false;
  const Entry& before = *Find(socket);
  // Everything may have been received since the kernel reported this; whatever came later is reported anew.
  const bool stale_read =
      before.drained && before.drained_iteration == loop.iteration && (events & (kEnd | EPOLLPRI)) == 0;
  if ((events & (EPOLLIN | EPOLLPRI | kEnd)) != 0 && !stale_read) {
    Entry& entry = *Find(socket);
    entry.drained = false;
    if ((events & kEnd) != 0) entry.end_seen = true;
    if ((events & EPOLLPRI) != 0) entry.urgent = true;
    if (entry.read_armed && !entry.close_notified) called = OnStreamReadable(socket);
    // Mostly the last data is taken whole. Then the end need not wait for an event of its own.
    const Entry* const after = Find(socket);
    if (called && after != nullptr && after->rearm_due && after->end_seen && after->read_armed &&
        !after->close_notified && after->sink != nullptr) {
      OnStreamReadable(socket);
    }
  }
  Entry* const entry = Find(socket);
  if (entry == nullptr) return called;
  const bool writable = (events & (EPOLLOUT | EPOLLHUP | EPOLLERR)) != 0;
  if (writable && entry->unsent != SendBatch::kNone && batch.IsBlocked(entry->unsent)) {
    if (!SendUnsent(socket, *entry, false)) return called;
    if (std::exchange(entry->shut_down_due, false)) shutdown(entry->native, SHUT_WR);
  }
  if (entry->write_armed && writable) {
    if (entry->sink == nullptr) {
      entry->pending_unwatched = true;
      return called;
    }
    entry->write_armed = false;
    if (Notify(socket, SocketEvent::kWrite, 0)) called = true;
  }
  return called;
}

bool Sockets::Impl::OnStreamReadable(SocketHandle socket) {
  Entry& entry = *Find(socket);
  if (entry.end_reached) {
    entry.close_notified = true;
    entry.rearm_due = false;
    return Notify(socket, SocketEvent::kClose, entry.close_error);
  }
  if (entry.end_seen) {
    char byte = 0;
    const ssize_t count = recv(entry.native, &byte, 1, MSG_PEEK);
    const int code = count < 0 ? errno : 0;
    if (code == EAGAIN) {
      entry.end_seen = false;
      SetDrained(entry);
      return false;
    }
    if (count <= 0) {
      if (code != 0) entry.close_error = SocketErrorOfErrno(code);
      entry.close_notified = true;
      entry.rearm_due = false;  // nothing more comes
      return Notify(socket, SocketEvent::kClose, entry.close_error);
    }
  }
  entry.read_armed = false;
  return Notify(socket, SocketEvent::kRead, 0);
}

}  // namespace trabex
