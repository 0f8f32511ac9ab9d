// Runs the loop until something is so: how tests wait for an event without sleeping.
#pragma once

#include <algorithm>
#include <chrono>

#include "platform/event_loop.h"

namespace trabex {

// Runs `loop` until `predicate()` holds, for `bound` of real time at most. Returns whether it holds. What
// the predicate looks at may also change without the loop (the other end of a connection), so it is looked at
// now and then while the loop has nothing to do.
template <class Predicate>
bool RunUntil(EventLoop& loop, Predicate predicate, Milliseconds bound = std::chrono::seconds(10)) {
  const auto end = std::chrono::steady_clock::now() + bound;
  while (!predicate()) {
    const auto left = std::chrono::ceil<Milliseconds>(end - std::chrono::steady_clock::now());
    if (left <= Milliseconds{0}) return predicate();
    loop.RunOnce(std::min(left, Milliseconds{5}));
  }
  return true;
}

// Runs `loop` until it has nothing left to do at once: what is under way inside this machine has happened
// then, as far as the kernel delivers it without delay (loopback does).
inline void RunUntilIdle(EventLoop& loop) {
  while (loop.RunOnce(Milliseconds{0})) {
  }
}

}  // namespace trabex
