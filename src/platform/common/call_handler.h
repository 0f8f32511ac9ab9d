// How the loop calls its handlers.
#pragma once

#include <cassert>

namespace trabex {

// Calls `action` where nothing above it catches: an exception that leaves it is a defect of the handler, so
// it stops a debug build; otherwise the loop goes on with the next call.
template <class Action>
void CallHandler(const Action& action) noexcept {
  try {
    action();
  } catch (...) {
    assert(false && "an exception left an event handler");
  }
}

}  // namespace trabex
