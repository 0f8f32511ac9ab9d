// Watches a socket of the system that is none of platform/sockets.h: those of c-ares. Where the system has other things
// that are watched alike, the files that are for this system alone watch them by it too.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "platform/event_loop.h"

namespace trabex {

class FdWatcher {
 public:
  // Watches nothing until SetInterest. `ready` is called from the loop, in each iteration as long as what is
  // watched for holds (level-triggered); an error or hang-up counts as whatever is watched for. `loop`
  // outlives the watcher; `native_socket` stays the caller's and must stay open while there is interest in
  // it; one watcher for each.
  FdWatcher(EventLoop& loop, std::intptr_t native_socket, std::function<void(FdReadiness)> ready);
  // Ends the calls at once, also for an event that this loop iteration has still to handle; allowed inside
  // `ready`.
  ~FdWatcher();
  FdWatcher(const FdWatcher&) = delete;
  FdWatcher& operator=(const FdWatcher&) = delete;

  // Replaces what is watched for. Raises 57 "Device I/O error" when the system cannot watch it.
  void SetInterest(FdReadiness interest);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace trabex
