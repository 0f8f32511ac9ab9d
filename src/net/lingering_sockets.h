// Sockets that their owner has closed and that still have to be ended in order, so that what was said to the
// peer reaches it.
//
// Closing a TCP socket while data of the peer lies unread resets the connection, and the reset makes the
// peer's system drop what it has received from us and not yet given to its program. So the rest is sent, then
// our sending ends, and whatever the peer still says is read and dropped until it ends as well (RFC 1122
// section 4.2.2.13).
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "base/log.h"
#include "net/byte_queue.h"
#include "net/stream.h"
#include "platform/event_loop.h"
#include "platform/sockets.h"

namespace trabex {

class LingeringSockets final : public SocketSink {
 public:
  // However slow the peer is, its socket is closed after this time.
  static constexpr Milliseconds kMaxDuration{5000};

  // References outlive this object. `socket_closed` is called after each socket that was closed here.
  LingeringSockets(Sockets& sockets, Stream& plain, Log& log, std::function<void()> socket_closed);
  ~LingeringSockets() override;  // closes the rest at once
  LingeringSockets(const LingeringSockets&) = delete;
  LingeringSockets& operator=(const LingeringSockets&) = delete;

  // Takes over a socket that was connected, with what it has not sent yet and the stream that carries it
  // (nullptr: the plain one). `peer_ended`: its owner has had FD_CLOSE. May be done with it at once.
  void Take(SocketHandle socket, std::unique_ptr<Stream> stream, ByteQueue unsent, bool peer_ended);
  std::size_t Count() const { return holders_.size(); }
  // Calls `emptied` once from the loop as soon as none is left.
  void WhenNone(std::function<void()> emptied);

  void OnSocketEvent(SocketHandle socket, SocketEvent event, int error) override;

 private:
  struct Holder {
    SocketHandle socket;
    std::unique_ptr<Stream> stream;  // nullptr: the plain one
    ByteQueue unsent;
    bool sending_ended = false;
    bool peer_ended = false;
  };
  struct Deadline {
    MonotonicTime time;
    SocketHandle socket;
  };

  // Calls `action`, which returns whether the connection is still of use, for its holder, if there is one still, and
  // goes on. A connection for which there is no memory is closed.
  template <class Action>
  void Serve(SocketHandle socket, const Action& action);
  // Each returns false when the connection is of no use any more.
  bool Flush(Holder& holder);
  bool Drop(Holder& holder);
  void DropAgain(SocketHandle socket);
  // Goes on as far as it can, and closes what is done.
  void Proceed(Holder& holder, bool usable);
  void Close(SocketHandle socket);
  void CloseOverdue();
  void NotifyEmpty();
  Stream& StreamOf(const Holder& holder) { return holder.stream ? *holder.stream : plain_; }

  Sockets& sockets_;
  Stream& plain_;
  Log& log_;
  std::function<void()> socket_closed_;
  std::map<std::int32_t, Holder> holders_;  // by index
  std::deque<Deadline> deadlines_;          // in order; some are of sockets already gone
  Timer timer_;
  std::vector<std::function<void()>> waiting_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace trabex
