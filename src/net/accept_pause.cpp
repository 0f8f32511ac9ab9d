#include "net/accept_pause.h"

#include <algorithm>
#include <cassert>
#include <string>
#include <utility>

#include "net/socket_errors.h"

namespace trabex {

AcceptPause::AcceptPause(Sockets& sockets, Log& log)
    : sockets_(sockets), log_(log), retry_(sockets.Loop(), kRetryInterval, [this] { Resume(); }) {}

bool AcceptPause::IsExhaustion(int error) {
  return error == socket_error::kTooManyOpenFiles || error == socket_error::kNoBufferSpace;
}

void AcceptPause::Add(SocketHandle listener, SocketSink& sink) {
  Forget(listener);  // its first attempt to listen may have failed
  listeners_.push_back({listener, &sink});
}

void AcceptPause::Pause(SocketHandle listener, int error) {
  const auto found = std::find_if(listeners_.begin(), listeners_.end(),
                                  [&](const Listener& known) { return known.socket == listener; });
  assert(found != listeners_.end());
  found->paused = true;
  retry_.Enable();
  sockets_.Watch(listener, nullptr);
  ++attempts_;
  if (std::exchange(exhausted_, true)) return;
  RunLogged(log_, "modSocketMaster.Pause", [&] {
    std::string line = "L: Error " + std::to_string(error) + ". ";
    line.append(SocketErrorText(error)).append(" Accepting pauses until a session ends.");
    log_.LogLine(line);
  });
}

void AcceptPause::Forget(SocketHandle socket) {
  std::erase_if(listeners_, [&](const Listener& known) { return known.socket == socket; });
}

bool AcceptPause::IsPausing() const {
  return std::any_of(listeners_.begin(), listeners_.end(),
                     [](const Listener& listener) { return listener.paused; });
}

void AcceptPause::Accepted() {
  if (!exhausted_) return;
  ++attempts_;
  WatchForEnd();
}

void AcceptPause::SocketClosed() {
  if (IsPausing()) Resume();
}

void AcceptPause::Resume() {
  retry_.Disable();
  // Each is told of what waits later, in the loop.
  for (Listener& listener : listeners_) {
    if (std::exchange(listener.paused, false)) sockets_.Watch(listener.socket, listener.sink);
  }
  WatchForEnd();
}

void AcceptPause::WatchForEnd() {
  // A connection that waits is announced in the next loop iteration.
  EventLoop& loop = sockets_.Loop();
  // Without memory for it the period lasts until the next connection.
  RunLogged(log_, "modSocketMaster.WatchForEnd", [&] {
    loop.Post([this, &loop, attempts = attempts_, alive = std::weak_ptr<bool>(alive_)] {
      if (alive.expired()) return;
      RunLogged(log_, "modSocketMaster.WatchForEnd", [&] {
        loop.OnIterationEnd([this, attempts, alive] {
          if (!alive.expired() && attempts == attempts_ && !IsPausing()) exhausted_ = false;
        });
      });
    });
  });
}

}  // namespace trabex
