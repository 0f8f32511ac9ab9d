// From epoll's readiness to the five notifications; the rules are in sockets_impl.h.
#include <sys/socket.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <utility>

#include "platform/common/call_handler.h"
#include "platform/linux/sockets/socket_errno.h"
#include "platform/linux/sockets/sockets_impl.h"

namespace trabex {

namespace {

constexpr std::uint32_t kStreamEvents = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLPRI | EPOLLET;
constexpr std::uint32_t kListenerEvents = EPOLLIN;
constexpr std::uint32_t kEnd = EPOLLRDHUP | EPOLLHUP | EPOLLERR;

}  // namespace

Sockets::Impl::Impl(EventLoop& event_loop)
    : loop(event_loop.GetImpl()), source(loop.AddSource(*this)), entries(1) {}

Sockets::Impl::~Impl() {
  for (const Entry& entry : entries) {
    if (entry.descriptor >= 0) close(entry.descriptor);
  }
  loop.RemoveSource(source);
}

Sockets::Impl::Entry* Sockets::Impl::Find(SocketHandle socket) {
  if (socket.index <= 0 || static_cast<std::size_t>(socket.index) >= entries.size()) return nullptr;
  Entry& entry = entries[static_cast<std::size_t>(socket.index)];
  return entry.descriptor >= 0 && entry.generation == socket.generation ? &entry : nullptr;
}

SocketHandle Sockets::Impl::Add(int descriptor, AddressFamily family, Role role) {
  if (free.empty()) {
    assert(entries.size() <= EventTarget::kMaxIndex);
    free.push_back(static_cast<std::uint32_t>(entries.size()));
    entries.emplace_back();
  }
  const std::uint32_t index = free.back();
  free.pop_back();
  Entry& entry = entries[index];
  const std::uint32_t generation = entry.generation;
  entry = Entry{};
  entry.generation = generation;
  entry.descriptor = descriptor;
  entry.family = family;
  entry.role = role;
  return {static_cast<std::int32_t>(index), generation};
}

void Sockets::Impl::Remove(SocketHandle socket) {
  Entry& entry = *Find(socket);
  // Closing takes it out of the epoll set.
  close(entry.descriptor);
  entry.descriptor = -1;
  entry.sink = nullptr;
  ++entry.generation;
  free.push_back(static_cast<std::uint32_t>(socket.index));
}

EventTarget Sockets::Impl::Target(SocketHandle socket) const {
  return {source, static_cast<std::uint32_t>(socket.index), socket.generation};
}

int Sockets::Impl::Register(SocketHandle socket, Entry& entry) {
  if (entry.registered) return 0;
  const std::uint32_t events = entry.role == Role::kListening ? kListenerEvents : kStreamEvents;
  const int code = loop.Control(EPOLL_CTL_ADD, entry.descriptor, events, Target(socket));
  if (code != 0) return SocketErrorOfErrno(code);
  entry.registered = true;
  return 0;
}

void Sockets::Impl::Rearm(SocketHandle socket, Entry& entry) {
  if (entry.rearm_due || !entry.registered) return;
  entry.rearm_due = true;
  to_rearm.push_back(socket);
}

void Sockets::Impl::BeforeWait() {
  for (const SocketHandle socket : to_rearm) {
    Entry* const entry = Find(socket);
    if (entry == nullptr || !entry->rearm_due) continue;
    entry->rearm_due = false;
    loop.Control(EPOLL_CTL_MOD, entry->descriptor, kStreamEvents, Target(socket));
  }
  to_rearm.clear();
}

void Sockets::Impl::DisarmListener(SocketHandle socket, Entry& entry) {
  entry.disarmed = true;
  loop.Control(EPOLL_CTL_MOD, entry.descriptor, 0, Target(socket));
}

void Sockets::Impl::ArmListener(SocketHandle socket, Entry& entry) {
  if (!entry.disarmed) return;
  entry.disarmed = false;
  loop.Control(EPOLL_CTL_MOD, entry.descriptor, kListenerEvents, Target(socket));
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
    const bool more = static_cast<std::size_t>(count) == size || entry.end_seen || entry.urgent;
    if (more) {
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

bool Sockets::Impl::Notify(SocketHandle socket, SocketEvent event, int error) {
  Entry* const entry = Find(socket);
  if (entry == nullptr || entry->sink == nullptr) return false;
  SocketSink* const sink = entry->sink;
  CallHandler([&] { sink->OnSocketEvent(socket, event, error); });
  return true;
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
  Entry& entry = *Find(socket);
  if ((events & EPOLLIN) == 0) return false;
  if (!entry.accept_armed) {
    DisarmListener(socket, entry);
    return false;
  }
  entry.accept_armed = false;
  return Notify(socket, SocketEvent::kAccept, 0);
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
  if (getsockopt(entry.descriptor, SOL_SOCKET, SO_ERROR, &code, &size) != 0) code = errno;
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
  }
  Entry* const entry = Find(socket);
  if (entry == nullptr) return called;
  if (entry->write_armed && (events & (EPOLLOUT | EPOLLHUP | EPOLLERR)) != 0) {
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
  if (entry.end_seen) {
    char byte = 0;
    const ssize_t count = recv(entry.descriptor, &byte, 1, MSG_PEEK);
    const int code = count < 0 ? errno : 0;
    if (code == EAGAIN) {
      entry.end_seen = false;
      SetDrained(entry);
      return false;
    }
    if (count <= 0) {
      if (code != 0) entry.close_error = SocketErrorOfErrno(code);
      entry.close_notified = true;
      return Notify(socket, SocketEvent::kClose, entry.close_error);
    }
  }
  entry.read_armed = false;
  return Notify(socket, SocketEvent::kRead, 0);
}

}  // namespace trabex
