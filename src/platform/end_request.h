// The system's wish that the program end: SIGTERM, SIGINT and SIGHUP here.
#pragma once

#include <functional>
#include <memory>

#include "platform/event_loop.h"

namespace trabex {

class EndRequest {
 public:
  virtual ~EndRequest() = default;  // the signals act as before again
};

// Calls `requested` from the loop each time the system asks for the end. A SIGHUP that was ignored when the
// program started stays ignored.
std::unique_ptr<EndRequest> WatchEndRequest(EventLoop& loop, std::function<void()> requested);

}  // namespace trabex
