// The table of sockets, and how epoll's readiness becomes the five notifications.
//
// A connected socket is registered once, edge-triggered, for everything, so that arming a notification again
// costs no system call. What keeps that right:
//   - An edge comes whenever data arrives after a receive that took everything, so a short receive needs no
//     second one that finds nothing (epoll(7)). Only a receive that filled its room leaves the question open;
//     the socket is then registered anew before the next wait, which makes the kernel look again.
//   - Once the peer's end was seen no further edge comes, so from then on every receive is followed by a new
//     look, and each look asks with a peek whether data or the end comes next.
//   - Urgent data ends a receive early as well; a peer that sends any gets a new look after every receive.
//   - A send that took less than all makes the kernel report when there is room again.
// A listener is level-triggered: after an accept the kernel reports the next connection by itself. When
// nobody accepts, it is taken out of the report until somebody does.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/linux/loop/event_loop_impl.h"
#include "platform/sockets.h"

namespace trabex {

struct Sockets::Impl final : EventSource {
  enum class Role : std::uint8_t { kFresh, kListening, kConnecting, kStream, kFailed, kDatagram };

  struct Entry {
    int descriptor = -1;  // -1: free
    std::uint32_t generation = 0;
    SocketSink* sink = nullptr;
    std::uint32_t drained_iteration = 0;  // the loop iteration in which `drained` was set
    int close_error = 0;  // what a receive found when the connection broke; the hint of FD_CLOSE
    Role role = Role::kFresh;
    bool registered = false;    // in the epoll set
    bool read_armed = true;     // a receive was tried since FD_READ was told
    bool write_armed = false;   // FD_WRITE is to be told when there is room
    bool accept_armed = true;   // an accept was tried since FD_ACCEPT was told
    bool parked = false;        // a listener out of the report
    bool drained = false;       // a receive took everything, nothing was heard since
    bool end_seen = false;      // the peer ended or broke the connection
    bool close_told = false;    // FD_CLOSE has been told
    bool urgent = false;        // the peer sends urgent data
    bool missed = false;        // something happened while nobody watched
    bool look_again = false;    // queued for a new registration
    bool sending_shut = false;  // ShutDownSending was called
  };

  explicit Impl(EventLoop& event_loop);
  ~Impl() override;
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  // nullptr for a stale handle. Valid until the next Add.
  Entry* Find(SocketHandle socket);
  SocketHandle Add(int descriptor, Role role);
  void Remove(SocketHandle socket);
  // Puts the socket into the epoll set. Returns 0 or our error number.
  int Register(SocketHandle socket, Entry& entry);
  // Has the kernel report anew what is so, before the next wait.
  void LookAgain(SocketHandle socket, Entry& entry);
  void Park(SocketHandle socket, Entry& entry);
  void Unpark(SocketHandle socket, Entry& entry);
  void SetDrained(Entry& entry);
  // What a receive with result `count` (errno in `code`) into `room` bytes says about the socket.
  void NoteReceive(SocketHandle socket, Entry& entry, std::int64_t count, std::size_t room, int code);

  bool OnReady(std::uint32_t index, std::uint32_t generation, std::uint32_t events) override;
  void BeforeWait() override;

  EventLoop::Impl& loop;
  std::uint8_t source;
  std::vector<Entry> entries;
  std::vector<std::uint32_t> free;
  std::vector<SocketHandle> to_look_again;

 private:
  bool OnListenerReady(SocketHandle socket, std::uint32_t events);
  bool OnDatagramReady(SocketHandle socket, std::uint32_t events);
  bool OnConnectReady(SocketHandle socket, std::uint32_t events);
  bool OnStreamReady(SocketHandle socket, std::uint32_t events);
  bool OnStreamReadable(SocketHandle socket);
  // Calls the sink, if there is one still.
  bool Tell(SocketHandle socket, SocketEvent event, int error);
  EventTarget Target(SocketHandle socket) const;
};

}  // namespace trabex
