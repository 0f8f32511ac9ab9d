// The table of sockets, and how epoll's readiness becomes the five notifications.
//
// A connected socket is registered once, edge-triggered, for everything, so that arming a notification again
// costs no system call. What keeps that right:
//   - An edge comes whenever data arrives after a receive that took everything, so a short receive needs no
//     second one that finds nothing (epoll(7)). Only a receive that filled its buffer leaves the question
//     open; the socket is then re-armed before the next wait: registered anew, which makes the kernel report
//     again what is there.
//   - Once the peer's end was seen no further edge comes, so from then on the socket is re-armed after every
//     receive, and each report asks with a peek whether data or the end comes next.
//   - Urgent data ends a receive early as well; the socket of a peer that sends any is re-armed after every
//     receive.
//   - A send that took less than all makes the kernel report when the next one is possible.
// What is sent in the calls of an iteration is collected and goes to the kernel after them (SendBatch).
// A listener is level-triggered: after an accept the kernel reports the next connection by itself. When
// none is accepted, it is disarmed (left in the epoll set without any interest) until one is.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <new>
#include <span>
#include <vector>

#include "platform/common/socket_table.h"
#include "platform/linux/loop/event_loop_impl.h"
#include "platform/linux/sockets/send_batch.h"
#include "platform/sockets.h"

namespace trabex {

struct Sockets::Impl final : EventSource {
  enum class Role : std::uint8_t { kFresh, kListening, kConnecting, kStream, kFailed, kDatagram };

  struct Entry {
    int native = -1;  // the descriptor; -1: free
    std::uint32_t generation = 0;
    SocketSink* sink = nullptr;
    std::uint32_t drained_iteration = 0;        // the loop iteration in which `drained` was set
    SendBatch::Slot unsent = SendBatch::kNone;  // what the kernel has not got yet
    int close_error = 0;  // what a receive found when the connection broke; the hint of FD_CLOSE
    Role role = Role::kFresh;
    AddressFamily family = AddressFamily::kIPv4;
    bool registered = false;         // in the epoll set
    bool read_armed = true;          // a receive was tried since FD_READ
    bool write_armed = false;        // FD_WRITE is due when a send is possible
    bool accepted = false;           // the last accept gave a connection
    bool accept_armed = true;        // an accept was tried since FD_ACCEPT
    bool disarmed = false;           // a listener without interest in the set
    bool drained = false;            // a receive took everything, no event came since
    bool end_seen = false;           // the peer ended or broke the connection
    bool end_reached = false;        // a receive took the last data before the peer's orderly end
    bool close_notified = false;     // FD_CLOSE was notified
    bool urgent = false;             // the peer sends urgent data
    bool much_waits = false;         // the last receive took much, and not everything
    bool pending_unwatched = false;  // an event came while there was no sink
    bool rearm_due = false;          // queued to be re-armed
    bool sending_shut = false;       // ShutDownSending was called
    bool broken = false;             // a send would fail
    bool shut_down_due = false;      // the kernel is told of it when it has got what is unsent
  };

  explicit Impl(EventLoop& event_loop);
  ~Impl() override;
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  // nullptr for a stale handle. Valid until it is removed.
  Entry* Find(SocketHandle socket) { return table.Find(socket); }
  SocketHandle Add(int descriptor, AddressFamily family, Role role) {
    try {
      return table.Add(descriptor, family, role, EventTarget::kMaxIndex);
    } catch (const std::bad_alloc&) {
      close(descriptor);
      throw;
    }
  }
  void Remove(SocketHandle socket);
  // Puts the socket into the epoll set. Returns 0 or our error number.
  int Register(SocketHandle socket, Entry& entry);
  // Has the kernel report anew what is there, before the next wait.
  void Rearm(SocketHandle socket, Entry& entry);
  void DisarmListener(SocketHandle socket, Entry& entry);
  void ArmListener(SocketHandle socket, Entry& entry);
  void SetDrained(Entry& entry);
  // Records what a receive with result `count` (errno in `code`) into a buffer of `size` bytes says about the
  // socket.
  void NoteReceive(SocketHandle socket, Entry& entry, std::int64_t count, std::size_t size, int code);

  // Whether the bytes wait for the end of the iteration now. Otherwise nothing of the socket is due.
  bool Collect(SocketHandle socket, Entry& entry, std::span<const char> data);
  // Hands what is unsent to the kernel; `more_follows` as in Send. Returns whether nothing is unsent after it.
  bool SendUnsent(SocketHandle socket, Entry& entry, bool more_follows);
  void SendDue();
  // Ends sending, at the latest when the kernel has got what is unsent. Returns 0 or errno.
  int ShutDown(SocketHandle socket, Entry& entry);

  bool OnReady(std::uint32_t index, std::uint32_t generation, std::uint32_t events) override;
  void OnBroken(std::uint32_t index, std::uint32_t generation) override;
  void AfterCalls() override { SendDue(); }
  void BeforeWait() override;

  EventLoop::Impl& loop;
  std::uint8_t source;
  SocketTable<Entry> table;
  std::vector<SocketHandle> to_rearm;
  SendBatch batch;

 private:
  bool OnListenerReady(SocketHandle socket, std::uint32_t events);
  bool OnDatagramReady(SocketHandle socket, std::uint32_t events);
  bool OnConnectReady(SocketHandle socket, std::uint32_t events);
  bool OnStreamReady(SocketHandle socket, std::uint32_t events);
  bool OnStreamReadable(SocketHandle socket);
  bool Notify(SocketHandle socket, SocketEvent event, int error) {
    return table.Notify(socket, event, error);
  }
  EventTarget Target(SocketHandle socket) const;
};

}  // namespace trabex
