// Watches a descriptor that is not one of our sockets: those of c-ares, of signals, of the instance lock, of
// the view's process.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "platform/event_loop.h"

namespace trabex {

class ForeignWatch {
 public:
  // Watches nothing until SetInterest. `ready` is called from the loop, each turn anew as long as what is
  // watched for holds (level-triggered); an error or hang-up counts as whatever is watched for. `loop`
  // outlives the watch; `native_socket` stays the caller's and must stay open while there is interest in it;
  // one watch per descriptor.
  ForeignWatch(EventLoop& loop, std::intptr_t native_socket, std::function<void(ForeignReadiness)> ready);
  // Ends the calls at once, those already under way in this turn included; allowed inside `ready`.
  ~ForeignWatch();
  ForeignWatch(const ForeignWatch&) = delete;
  ForeignWatch& operator=(const ForeignWatch&) = delete;

  // Replaces what is watched for. Raises 57 "Device I/O error" when the system cannot watch the descriptor.
  void SetInterest(ForeignReadiness interest);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace trabex
