#include "net/accept_pause.h"

#include <string>
#include <utility>

#include "net/socket_errors.h"

namespace trabex {

AcceptPause::AcceptPause(Sockets& sockets, Log& log)
    : sockets_(sockets), log_(log), retry_(sockets.Loop(), kRetryInterval, [this] { Resume(); }) {
  paused_.reserve(kListeners);
}

bool AcceptPause::IsExhaustion(int error) {
  return error == socket_error::kTooManyOpenFiles || error == socket_error::kNoBufferSpace;
}

void AcceptPause::Pause(SocketHandle listener, SocketSink& sink, int error) {
  retry_.Enable();
  paused_.push_back({listener, &sink});
  sockets_.Watch(listener, nullptr);
  ++attempts_;
  if (std::exchange(exhausted_, true)) return;
  RunLogged(log_, "modSocketMaster.Pause", [&] {
    std::string line = "L: Error " + std::to_string(error) + ". ";
    line.append(SocketErrorText(error)).append(" Accepting pauses until a session ends.");
    log_.LogLine(line);
  });
}

void AcceptPause::Forget(SocketHandle listener) {
  std::erase_if(paused_, [&](const Listener& paused) { return paused.socket == listener; });
}

void AcceptPause::Accepted() {
  if (!exhausted_) return;
  ++attempts_;
  WatchForEnd();
}

void AcceptPause::SocketClosed() {
  if (!paused_.empty()) Resume();
}

void AcceptPause::Resume() {
  retry_.Disable();
  // Each is told of what waits later, in the loop.
  for (const Listener& listener : paused_) sockets_.Watch(listener.socket, listener.sink);
  paused_.clear();
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
          if (!alive.expired() && attempts == attempts_ && paused_.empty()) exhausted_ = false;
        });
      });
    });
  });
}

}  // namespace trabex
