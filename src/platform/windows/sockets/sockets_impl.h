// The table of sockets, and how the system's messages become the five notifications.
//
// Each connected, connecting or listening socket that somebody watched once sends messages to the loop's window. They
// are hints: a message may have been sent before what we did since, and the system drops some when too many wait. So
// what a message says is asked of the socket before anybody is notified:
//   - data by FIONREAD, which unlike a receive brings no further message,
//   - the end by a receive that leaves everything where it is, once a message or a receive has told of it,
//   - everything else by select().
// The system sends FD_READ again after each receive that leaves data, FD_WRITE after a send that would have blocked, and
// FD_ACCEPT after each accept that leaves a connection. It sends FD_CLOSE while data is still there, and may send no
// FD_WRITE behind it; where it waits until the data was read, the table of connections tells of the end before that.
// Sockets that have something to be looked at without a message are due in the next iteration.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <vector>

#include "platform/common/socket_table.h"
#include "platform/sockets.h"
#include "platform/windows/loop/event_loop_impl.h"
#include "platform/windows/sockets/connection_table.h"

namespace trabex {

struct Sockets::Impl final : EventSource {
  enum class Role : std::uint8_t { kFresh, kListening, kConnecting, kStream, kFailed, kDatagram };

  struct Entry {
    SOCKET native = INVALID_SOCKET;  // INVALID_SOCKET: free
    std::uint32_t generation = 0;
    SocketSink* sink = nullptr;
    std::uint64_t taken = 0;         // bytes that sends took
    std::uint64_t acknowledged = 0;  // the most of these that the peer was known to have
    UINT number = 0;                 // of its messages; 0: none come
    std::uint32_t looked_at = 0;     // the loop's iteration in which the socket was looked at last
    int connect_error = 0;           // what the connect came to
    int close_error = 0;             // how the connection ended; the hint of FD_CLOSE
    Role role = Role::kFresh;
    AddressFamily family = AddressFamily::kIPv4;
    bool read_armed = true;       // a receive was tried since FD_READ
    bool write_armed = false;     // FD_WRITE is due when a send is possible
    bool writable = true;         // no send would have blocked since the system said that one is possible
    bool accept_armed = true;     // an accept was tried since FD_ACCEPT
    bool connect_told = false;    // the connect has an outcome
    bool drained = false;         // a receive took everything, no message came since
    bool end_seen = false;        // the peer ended or broke the connection
    bool ask_end = false;         // whether it has is to be asked
    bool close_notified = false;  // FD_CLOSE was notified
    bool sending_shut = false;    // ShutDownSending was called
    bool due = false;             // is in `due`
    bool heard = false;           // a message came since the last look at what was silent
  };

  explicit Impl(EventLoop& event_loop);
  ~Impl() override;
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  // nullptr for a stale handle. Valid until it is removed.
  Entry* Find(SocketHandle socket) { return table.Find(socket); }
  SocketHandle Add(SOCKET native, AddressFamily family, Role role) {
    try {
      return table.Add(native, family, role);
    } catch (const std::bad_alloc&) {
      closesocket(native);
      throw;
    }
  }
  void Remove(SocketHandle socket);
  // Has the system send messages of the socket. Returns 0 or an error number.
  int Register(SocketHandle socket, Entry& entry);
  // The socket is looked at in the next iteration. Needs no memory.
  void MakeDue(SocketHandle socket, Entry& entry);
  // Records what a receive into a buffer of `size` bytes says about the socket: `count` bytes, or an error.
  void NoteReceive(SocketHandle socket, Entry& entry, std::size_t count, std::size_t size, int error);
  // Whether the peer has ended or broken the connection, also when no message has told of it.
  bool HasPeerEnded(Entry& entry);

  bool OnMessage(std::uint32_t index, std::uint32_t generation, long event, int error) override;
  bool IsDue() const override { return !due.empty() || has_unlisted_due || asking_from != 0; }
  std::size_t CallDue() override;
  void AskAnew() override;
  void AskAll() override;

  EventLoop::Impl& loop;
  ConnectionTable connections;
  SocketTable<Entry> table;
  std::vector<SocketHandle> due;
  bool has_unlisted_due = false;  // some are due by their entries alone: there was no memory to list them

 private:
  // Notifies of what holds now. Each returns whether anybody was called. In each iteration a socket is looked at once:
  // one whose owner takes a little of much each time has a new message at once, and would keep the others waiting.
  bool Look(SocketHandle socket);
  // Those that `due` has no place for. Returns the number of calls.
  std::size_t LookAtUnlisted();
  bool LookAtListener(SocketHandle socket);
  bool LookAtDatagrams(SocketHandle socket);
  bool LookAtConnect(SocketHandle socket);
  bool LookAtStream(SocketHandle socket);
  bool LookAtReading(SocketHandle socket);
  bool Notify(SocketHandle socket, SocketEvent event, int error) {
    return table.Notify(socket, event, error);
  }
  // Goes on asking, about a bounded number of sockets.
  void AskSome();
  // Asks those that wait for something, as many as can be asked at a time, from the index on. Unless all are meant, those
  // that a message told of are left out. Returns where to go on; 0: they were the last.
  std::size_t AskFrom(std::size_t index, bool all);
  static bool IsWaiting(const Entry& entry);

  std::vector<SocketHandle> looked_at;
  std::size_t asking_from = 0;  // the next to be asked; 0: none is
};

}  // namespace trabex
