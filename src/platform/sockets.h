// The system's sockets, those of IPv4 and those of IPv6, by handles and notifications.
//
// Watching a socket delivers five notifications to its sink, with the meaning of Windows Sockets'
// asynchronous selection:
//   FD_READ     when data is there, and again only after a receive was tried and more is there
//   FD_WRITE    once after the connection is made, and after a send that would have blocked, as soon as the
//               next one can go on
//   FD_ACCEPT   when a connection waits, and again after an accept when another one waits
//   FD_CONNECT  once, when a connect that was under way has succeeded or failed (error != 0)
//   FD_CLOSE    once, after everything that the peer sent has been read; its error (10054 and the like) is a
//               hint that a system may not have: then it is 0, as after an orderly end
// No notification is lost or repeated without a cause. They are delivered from the loop, never from inside
// one of these calls; FD_READ before FD_WRITE when both hold.
//
// An endpoint that a call gives never has an IPv6 address that stands for an IPv4 one.
//
// Every function returns 0 or our error number (10035 would block, ...), never an errno.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/endpoint.h"
#include "base/ip_address.h"
#include "platform/event_loop.h"
#include "platform/splice_pipe.h"

namespace trabex {

// Names one socket: an index into a table and the generation of its use. A handle whose socket was closed is
// stale: every call with it returns 10038 and no notification carries it, even after the index was given out
// again.
struct SocketHandle {
  std::int32_t index = -1;  // 1 and up; small, so it also serves as the number shown to people. -1: none
  std::uint32_t generation = 0;

  bool IsNone() const { return index < 0; }
  friend bool operator==(const SocketHandle&, const SocketHandle&) = default;
};

enum class Transport { kTcp, kUdp };

// One bit each.
enum class SocketEvent : int { kRead = 1, kWrite = 2, kAccept = 8, kConnect = 16, kClose = 32 };

class SocketSink {
 public:
  virtual ~SocketSink() = default;
  // `error` is 0 or one of our error numbers. The sink may close the socket, and destroy itself only through
  // EventLoop::DeferredDelete.
  virtual void OnSocketEvent(SocketHandle socket, SocketEvent event, int error) = 0;
};

// The numbers of errors that callers distinguish.
namespace socket_error {
inline constexpr int kTooManyOpenFiles = 10024;
inline constexpr int kWouldBlock = 10035;
inline constexpr int kNotSocket = 10038;
inline constexpr int kAddressFamily = 10047;
inline constexpr int kAddressInUse = 10048;
inline constexpr int kAddressNotAvailable = 10049;
inline constexpr int kConnectionReset = 10054;
inline constexpr int kNoBufferSpace = 10055;
inline constexpr int kTimedOut = 10060;
inline constexpr int kConnectionRefused = 10061;
inline constexpr int kHostNotFound = 11001;
inline constexpr int kTryAgain = 11002;
inline constexpr int kNoRecovery = 11003;
inline constexpr int kNoData = 11004;
}  // namespace socket_error

class Sockets {
 public:
  // `loop` outlives this object. Lifts a limit of open files, and ignores SIGPIPE, where there are such.
  explicit Sockets(EventLoop& loop);
  ~Sockets();  // closes what is still open
  Sockets(const Sockets&) = delete;
  Sockets& operator=(const Sockets&) = delete;

  // A new non-blocking socket, not watched yet. One of IPv6 is for nothing but IPv6: bound to "::" it leaves
  // the machine's IPv4 addresses to others. 10047 where the system has no such family.
  int Open(Transport transport, AddressFamily family, SocketHandle& socket);
  // Closes it; its notifications end at once. Data not yet sent goes on being sent by the system, unless
  // received data was left unread: then the system resets the connection (see net/ for the orderly way).
  int Close(SocketHandle socket);
  // Delivers notifications to `sink` from now on (nullptr: to none, until the next Watch; what was due then
  // is delivered to the next sink, nothing is lost; of a connection that waits it is told in any case). An accepted
  // socket begins unwatched.
  int Watch(SocketHandle socket, SocketSink* sink);

  // An address of another family than the socket's gives 10047, here and wherever an endpoint is given.
  int Bind(SocketHandle socket, const Endpoint& local);
  // Binds so that no other process listens on the same endpoint, and a new start may follow an old one at
  // once.
  int BindExclusively(SocketHandle socket, const Endpoint& local);
  // `backlog` 0 asks for the platform's largest.
  int Listen(SocketHandle socket, int backlog);
  // The new socket is non-blocking, with TCP_NODELAY. `peer`, when wanted, is the caller's address, known
  // also when the caller has gone already. 10055 where there is no memory for the socket: the caller waits on.
  int Accept(SocketHandle listener, SocketHandle& accepted, Endpoint* peer = nullptr);
  // 10035 while it is under way (FD_CONNECT follows); TCP_NODELAY is set. 0 is also followed by FD_CONNECT.
  int Connect(SocketHandle socket, const Endpoint& remote);
  // Ends our sending side; receiving goes on.
  int ShutDownSending(SocketHandle socket);

  // `sent` is how much of `data` (not empty) the system took: 1 or more when 0 is returned. A send that took
  // less than all counts as one that would have blocked, so that no second try is needed to learn it.
  // `more_follows` is a hint: the system may wait a fifth of a second for the next send, to pack both
  // together. Small sends in the calls of a loop iteration go out together, in their order, at its end; an error
  // of one of these comes with FD_CLOSE.
  int Send(SocketHandle socket, std::span<const char> data, std::size_t& sent, bool more_follows = false);
  // Sends now what waits for the end of the iteration. For those who have long work before them.
  void SendCollected();
  // `received` 0 with result 0 is the end of the peer's data (`buffer` is not empty). 10035 is also the
  // result, without asking the system, when the last receive took everything and no event has come since.
  int Receive(SocketHandle socket, std::span<char> buffer, std::size_t& received);
  // Moves up to `limit` of the peer's next bytes into `pipe`, which is empty, without their coming here. That pays
  // only where much is there, so it is done only after a receive that did not take everything. Otherwise `moved`
  // is 0 with result 0, as it is at the end of the peer's data: Receive says what there is.
  int ReceiveInto(SocketHandle socket, SplicePipe& pipe, std::size_t limit, std::size_t& moved);
  // Sends from `pipe`, as Send does; what the system does not take stays in it.
  int SendFrom(SocketHandle socket, SplicePipe& pipe, std::size_t& sent);
  // Whether Receive would give 10035 without asking the system: what comes next is announced. False also for a
  // stale handle.
  bool Drained(SocketHandle socket) const;
  int SendTo(SocketHandle socket, std::span<const char> data, const Endpoint& to);
  int ReceiveFrom(SocketHandle socket, std::span<char> buffer, bool peek, std::size_t& received,
                  Endpoint& from);
  // The bytes that a receive would give (UDP: the size of the next datagram).
  int Available(SocketHandle socket, std::size_t& bytes);
  // What sends took and the peer's system has not acknowledged (TCP). An error where that is not told.
  int Unacknowledged(SocketHandle socket, std::size_t& bytes);
  // Whether the peer has ended or broken the connection: nothing comes beyond what is there to be received.
  // FD_CLOSE says the same only when all of that has been received. False also for a stale handle.
  bool PeerEnded(SocketHandle socket) const;

  int LocalEndpoint(SocketHandle socket, Endpoint& local);
  int RemoteEndpoint(SocketHandle socket, Endpoint& remote);
  int SendBufferSize(SocketHandle socket, int& bytes);
  int ReceiveBufferSize(SocketHandle socket, int& bytes);
  int AllowBroadcast(SocketHandle socket);

  // The addresses of all interfaces that are up, of both families; those of IPv6 that count on one link only
  // (fe80::/10) are among them.
  int LocalAddresses(std::vector<IPAddress>& addresses);

  EventLoop& Loop() { return loop_; }

 private:
  struct Impl;
  EventLoop& loop_;
  std::unique_ptr<Impl> impl_;
};

}  // namespace trabex
