// Watches a descriptor of the system that is no socket of platform/sockets.h: those of c-ares, and what the
// platform's own folder and the view's get requests of the system by.
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
  // it; one watcher per descriptor.
  FdWatcher(EventLoop& loop, std::intptr_t native_socket, std::function<void(FdReadiness)> ready);
  // Ends the calls at once, also for an event that this loop iteration has still to handle; allowed inside
  // `ready`.
  ~FdWatcher();
  FdWatcher(const FdWatcher&) = delete;
  FdWatcher& operator=(const FdWatcher&) = delete;

  // Replaces what is watched for. Raises 57 "Device I/O error" when the system cannot watch the descriptor.
  void SetInterest(FdReadiness interest);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace trabex
