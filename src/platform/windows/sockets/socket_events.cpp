// From the system's messages to the five notifications; the rules are in sockets_impl.h.
#include <algorithm>
#include <array>
#include <new>
#include <utility>

#include "platform/common/system_address.h"
#include "platform/windows/sockets/ready_sockets.h"
#include "platform/windows/sockets/socket_calls.h"
#include "platform/windows/sockets/sockets_impl.h"
#include "platform/windows/sockets/tcp_info.h"

namespace trabex {

namespace {

constexpr long kStreamEvents = FD_READ | FD_WRITE | FD_CONNECT | FD_CLOSE;
// In one iteration, so that what comes from others is not held up by the sockets that are silent.
constexpr int kMaxAskedInIteration = 4 * static_cast<int>(ReadySockets::kMax);

// The bytes that a receive would give.
std::size_t BytesThere(SOCKET socket) {
  u_long count = 0;
  return ioctlsocket(socket, FIONREAD, &count) == 0 ? count : 0;
}

// What comes next: 1 data, 0 the peer's orderly end, -1 neither or, with `error`, that the connection is broken.
int WhatComesNext(SOCKET socket, int& error) {
  char byte = 0;
  const int count = recv(socket, &byte, 1, MSG_PEEK);
  error = count < 0 ? WSAGetLastError() : 0;
  return count;
}

}  // namespace

Sockets::Impl::Impl(EventLoop& event_loop) : loop(event_loop.GetImpl()) {
  loop.AddSource(*this);
}

Sockets::Impl::~Impl() {
  for (std::size_t i = 0; i < table.Size(); ++i) {
    if (const Entry& entry = table.At(i); !table.IsFree(entry)) closesocket(entry.native);
  }
  loop.RemoveSource(*this);
}

void Sockets::Impl::Remove(SocketHandle socket) {
  Entry& entry = *Find(socket);
  // Closing ends its messages, apart from those that are under way.
  closesocket(entry.native);
  loop.Deselect(entry.native, std::exchange(entry.number, 0), false);
  table.Remove(socket);
}

int Sockets::Impl::Register(SocketHandle socket, Entry& entry) {
  if (entry.number != 0) return 0;
  const MessageTarget target{this, entry.native, static_cast<std::uint32_t>(socket.index), socket.generation};
  return loop.Select(target, entry.role == Role::kListening ? FD_ACCEPT : kStreamEvents, entry.number);
}

void Sockets::Impl::MakeDue(SocketHandle socket, Entry& entry) {
  if (entry.number == 0 || std::exchange(entry.due, true)) return;
  try {
    due.push_back(socket);
  } catch (const std::bad_alloc&) {
    has_unlisted_due = true;
  }
}

void Sockets::Impl::NoteReceive(SocketHandle socket, Entry& entry, std::size_t count, std::size_t size,
                                int error) {
  entry.read_armed = true;
  if (entry.role == Role::kDatagram) {
    if (error != WSAEWOULDBLOCK) MakeDue(socket, entry);  // a datagram's size says nothing about the next one
    return;
  }
  if (error == WSAEWOULDBLOCK) {
    entry.drained = entry.number != 0;  // otherwise no message would come for later data
    return;
  }
  if (count == 0) {
    // The end. FD_CLOSE comes from the loop, also when the owner has seen the end here.
    entry.end_seen = entry.ask_end = true;
    if (error != 0) entry.close_error = error;
    MakeDue(socket, entry);
    return;
  }
  if (entry.ask_end) {
    MakeDue(socket, entry);  // no message comes for the end any more
  } else if (count < size) {
    entry.drained = entry.number != 0;
  }
}

bool Sockets::Impl::HasPeerEnded(Entry& entry) {
  if (entry.end_seen || entry.role != Role::kStream) return entry.end_seen;
  if (BytesThere(entry.native) == 0) {
    // The message of the end is not held up here; but a message alone proves nothing.
    int error = 0;
    const int next = entry.ask_end ? WhatComesNext(entry.native, error) : 1;
    entry.end_seen = next == 0 || (next < 0 && error != WSAEWOULDBLOCK);
    return entry.end_seen;
  }
  SystemAddress local;
  SystemAddress remote;
  if (getsockname(entry.native, local.Get(), local.SizePlace()) != 0) return false;
  // A connection that is broken has no peer any more.
  if (getpeername(entry.native, remote.Get(), remote.SizePlace()) != 0 ||
      connections.HasPeerEnded(local.ToEndpoint(), remote.ToEndpoint())) {
    entry.end_seen = entry.ask_end = true;
  }
  return entry.end_seen;
}

bool Sockets::Impl::OnMessage(std::uint32_t index, std::uint32_t generation, long event, int error) {
  const SocketHandle socket{static_cast<std::int32_t>(index), generation};
  Entry* const entry = Find(socket);
  if (entry == nullptr) return false;
  entry->heard = true;
  switch (event) {
    case FD_READ:
      entry->drained = false;
      break;
    case FD_WRITE:
      entry->writable = entry->writable || AskReadiness(entry->native).writable;
      break;
    case FD_CONNECT:
      entry->connect_told = true;
      entry->connect_error = error;
      break;
    case FD_CLOSE:
      entry->drained = false;
      entry->ask_end = true;
      break;
    default:
      break;
  }
  return Look(socket);
}

bool Sockets::Impl::Look(SocketHandle socket) {
  Entry* const entry = Find(socket);
  // Nothing is forgotten: the next sink makes it due.
  if (entry == nullptr || entry->sink == nullptr) return false;
  if (entry->looked_at == loop.iteration) {
    MakeDue(socket, *entry);
    return false;
  }
  entry->looked_at = loop.iteration;
  switch (entry->role) {
    case Role::kListening:
      return LookAtListener(socket);
    case Role::kDatagram:
      return LookAtDatagrams(socket);
    case Role::kConnecting:
      return LookAtConnect(socket);
    case Role::kStream:
      return LookAtStream(socket);
    case Role::kFresh:
    case Role::kFailed:
      break;
  }
  return false;
}

std::size_t Sockets::Impl::CallDue() {
  std::size_t calls = 0;
  const bool unlisted = std::exchange(has_unlisted_due, false);
  looked_at.swap(due);
  for (const SocketHandle socket : looked_at) {
    if (Entry* const entry = Find(socket)) entry->due = false;
  }
  for (const SocketHandle socket : looked_at) {
    if (Look(socket)) ++calls;
  }
  looked_at.clear();
  if (unlisted) calls += LookAtUnlisted();
  if (asking_from != 0) AskSome();
  return calls;
}

std::size_t Sockets::Impl::LookAtUnlisted() {
  std::size_t calls = 0;
  for (std::size_t index = 1; index < table.Size(); ++index) {
    Entry& entry = table.At(index);
    if (table.IsFree(entry) || !std::exchange(entry.due, false)) continue;
    if (Look({static_cast<std::int32_t>(index), entry.generation})) ++calls;
  }
  return calls;
}

bool Sockets::Impl::LookAtListener(SocketHandle socket) {
  Entry& entry = *Find(socket);
  if (!entry.accept_armed || !AskReadiness(entry.native).readable) return false;
  entry.accept_armed = false;
  return Notify(socket, SocketEvent::kAccept, 0);
}

bool Sockets::Impl::LookAtDatagrams(SocketHandle socket) {
  Entry& entry = *Find(socket);
  const bool write = entry.write_armed && entry.writable;
  const bool read = entry.read_armed && AskReadiness(entry.native).readable;
  if (write) entry.write_armed = false;
  if (read) entry.read_armed = false;
  bool called = read && Notify(socket, SocketEvent::kRead, 0);
  if (write && Notify(socket, SocketEvent::kWrite, 0)) called = true;
  return called;
}

bool Sockets::Impl::LookAtConnect(SocketHandle socket) {
  Entry& entry = *Find(socket);
  if (!entry.connect_told) return false;
  ReadySockets asked;
  asked.Add(entry.native);
  asked.Ask();
  if (asked.HasFailed(entry.native)) {
    int error = 0;
    if (GetOption(entry.native, SOL_SOCKET, SO_ERROR, error) == 0 && error != 0) entry.connect_error = error;
    if (entry.connect_error == 0) entry.connect_error = socket_error::kConnectionRefused;
    entry.role = Role::kFailed;
    return Notify(socket, SocketEvent::kConnect, entry.connect_error);
  }
  if (!asked.IsWritable(entry.native)) {
    entry.connect_told = false;  // it is still under way, whatever the message said
    entry.connect_error = 0;
    return false;
  }
  entry.role = Role::kStream;
  entry.write_armed = true;
  LetSendsShowProgress(entry.native);
  const bool called = Notify(socket, SocketEvent::kConnect, 0);
  const Entry* const after = Find(socket);
  if (after != nullptr && after->sink != nullptr && after->role == Role::kStream) LookAtStream(socket);
  return called;
}

// Reading comes first, so that what the peer sent before it broke the connection is received.
bool Sockets::Impl::LookAtStream(SocketHandle socket) {
  Entry& before = *Find(socket);
  // A send that waited goes on also when the connection has broken, and the message of that may come later.
  if (before.write_armed && before.writable && before.read_armed && !before.close_notified &&
      AskReadiness(before.native).readable) {
    before.ask_end = true;
  }
  bool called = LookAtReading(socket);
  // Mostly the last data is taken whole. Then the end need not wait for the next iteration.
  if (const Entry* const after = Find(socket);
      called && after != nullptr && after->ask_end && after->sink != nullptr) {
    LookAtReading(socket);
  }
  Entry* const entry = Find(socket);
  if (entry != nullptr && entry->sink != nullptr && entry->write_armed && entry->writable) {
    entry->write_armed = false;
    if (Notify(socket, SocketEvent::kWrite, 0)) called = true;
  }
  return called;
}

bool Sockets::Impl::LookAtReading(SocketHandle socket) {
  Entry& entry = *Find(socket);
  if (!entry.read_armed || entry.close_notified) return false;
  if (BytesThere(entry.native) == 0) {
    if (!entry.ask_end) return false;
    int error = 0;
    const int next = WhatComesNext(entry.native, error);
    if (error == WSAEWOULDBLOCK) {
      entry.ask_end = entry.end_seen = false;
      return false;
    }
    if (next <= 0) {
      if (error != 0) entry.close_error = error;
      entry.end_seen = entry.close_notified = true;
      // A send that waits fails now, or goes on; the system says neither.
      entry.writable = entry.writable || AskReadiness(entry.native).writable || entry.close_error != 0;
      return Notify(socket, SocketEvent::kClose, entry.close_error);
    }
  }
  entry.read_armed = false;
  entry.drained = false;
  return Notify(socket, SocketEvent::kRead, 0);
}

bool Sockets::Impl::IsWaiting(const Entry& entry) {
  switch (entry.role) {
    case Role::kListening:
      return entry.accept_armed;
    case Role::kConnecting:
      return true;
    case Role::kDatagram:
    case Role::kStream:
      return (entry.read_armed && !entry.close_notified) || (entry.write_armed && !entry.writable);
    case Role::kFresh:
    case Role::kFailed:
      break;
  }
  return false;
}

void Sockets::Impl::AskAnew() {
  if (asking_from == 0 && table.Size() > 1) asking_from = 1;
}

void Sockets::Impl::AskAll() {
  for (std::size_t index = 1; index != 0;) index = AskFrom(index, true);
}

void Sockets::Impl::AskSome() {
  for (int left = kMaxAskedInIteration; left > 0 && asking_from != 0;
       left -= static_cast<int>(ReadySockets::kMax)) {
    asking_from = AskFrom(asking_from, false);
  }
}

std::size_t Sockets::Impl::AskFrom(std::size_t index, bool all) {
  ReadySockets asked;
  std::array<std::size_t, ReadySockets::kMax> indices{};
  std::size_t count = 0;
  for (; index < table.Size() && !asked.IsFull(); ++index) {
    Entry& entry = table.At(index);
    const bool heard = std::exchange(entry.heard, false);
    if ((heard && !all) || table.IsFree(entry) || entry.number == 0 || entry.sink == nullptr ||
        !IsWaiting(entry)) {
      continue;
    }
    asked.Add(entry.native);
    indices[count++] = index;
  }
  asked.Ask();
  for (std::size_t i = 0; i < count; ++i) {
    Entry& entry = table.At(indices[i]);
    const bool readable = asked.IsReadable(entry.native);
    const bool writable = asked.IsWritable(entry.native);
    if (readable) {
      entry.drained = false;
      entry.ask_end = true;
    }
    if (writable) entry.writable = true;
    if (entry.role == Role::kConnecting && (writable || asked.HasFailed(entry.native)))
      entry.connect_told = true;
    const bool write = writable && entry.write_armed;
    const bool connect = entry.role == Role::kConnecting && entry.connect_told;
    if (readable || write || connect) {
      MakeDue({static_cast<std::int32_t>(indices[i]), entry.generation}, entry);
    }
  }
  return index < table.Size() ? index : 0;
}

}  // namespace trabex
