// What the system, or somebody through it, asks of the running program. On Linux these are signals.
#pragma once

#include <functional>
#include <memory>

#include "platform/event_loop.h"

namespace trabex {

// Called from the loop, several times when several things are asked for; an empty one is skipped. A handler
// may destroy the watch; no other one is called then.
struct SystemRequestEvents {
  std::function<void()> end;  // SIGTERM, SIGINT, SIGQUIT
  // SIGHUP: the terminal has gone, or somebody asks for a reload. One that was ignored when the program
  // started stays ignored.
  std::function<void()> hang_up;
  std::function<void()> reopen_log;  // SIGUSR1: somebody has moved the log file
};

class SystemRequests {
 public:
  virtual ~SystemRequests() = default;  // the signals act as before again
};

// `loop` outlives the watch. Raises 57 "Device I/O error" when the system gives none.
std::unique_ptr<SystemRequests> WatchSystemRequests(EventLoop& loop, SystemRequestEvents events);

// Whether SIGHUP was ignored when the program started (nohup).
bool HangUpIsIgnored();

}  // namespace trabex
