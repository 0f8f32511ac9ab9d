// What happens when a connection waits and the process or the system has no descriptor or no memory for it: the
// listener pauses, instead of failing again and again, and goes on when it may be had.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "base/log.h"
#include "platform/event_loop.h"
#include "platform/sockets.h"

namespace trabex {

class AcceptPause {
 public:
  // Both may also be freed elsewhere (other processes, files), so it retries on a timer as well.
  static constexpr Milliseconds kRetryInterval{1000};

  // References outlive this object.
  AcceptPause(Sockets& sockets, Log& log);
  AcceptPause(const AcceptPause&) = delete;
  AcceptPause& operator=(const AcceptPause&) = delete;

  // Whether `error` of an accept means this.
  static bool IsExhaustion(int error);

  // `listener`, whose connections `sink` is notified of, may pause from now on. Raises std::bad_alloc.
  void Add(SocketHandle listener, SocketSink& sink);
  // Stops notifying the sink of `listener`, which just failed to accept with `error`. Writes one line to the
  // log for the whole period in which they are short. Needs no memory: otherwise the listener would fail on.
  void Pause(SocketHandle listener, int error);
  // `socket`, which may be a listener, is closed.
  void Forget(SocketHandle socket);
  // A connection has been accepted.
  void Accepted();
  // A descriptor has become free, and some memory: goes on.
  void SocketClosed();

 private:
  struct Listener {
    SocketHandle socket;
    SocketSink* sink;
    bool paused = false;
  };

  bool IsPausing() const;
  void Resume();
  // Ends the period when a whole loop iteration passes without a connection that waits.
  void WatchForEnd();

  Sockets& sockets_;
  Log& log_;
  std::vector<Listener> listeners_;
  bool exhausted_ = false;      // from the first failure until no connection waits any more
  std::uint64_t attempts_ = 0;  // accepts, failed or not, while exhausted
  Timer retry_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace trabex
