// What the system, or a user by way of it, asks of the running program.
#pragma once

#include <functional>
#include <memory>

#include "platform/event_loop.h"

namespace trabex {

// Called from the loop, several times when several things are asked for; an empty one is skipped. A handler
// may destroy the watch; no other one is called then. What a system cannot ask for is never called there.
struct SystemRequestEvents {
  // The program is to end in order: it was asked to by the system's own means, or the session or the machine ends.
  std::function<void()> end;
  // The screen has gone, or the operator asks for a reload; the handler knows which it is. A program that was
  // started so that it ignores this (HangUpIsIgnored) is not asked.
  std::function<void()> hang_up;
  // The log file was moved.
  std::function<void()> reopen_log;
};

class SystemRequests {
 public:
  virtual ~SystemRequests() = default;  // the requests act as before the watch
};

// `loop` outlives the watch. Raises 57 "Device I/O error" when the system cannot watch.
std::unique_ptr<SystemRequests> WatchSystemRequests(EventLoop& loop, SystemRequestEvents events);

// Whether the program was started to go on without its screen.
bool HangUpIsIgnored();

}  // namespace trabex
