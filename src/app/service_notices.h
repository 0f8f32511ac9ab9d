// What the service manager hears of the program: READY, RELOADING, STOPPING, and at half the interval in which it
// waits for one a sign of life, which comes from the loop, so that a loop that hangs gives none.
#pragma once

#include <memory>
#include <optional>

#include "platform/event_loop.h"
#include "platform/service_manager.h"

namespace trabex {

class ServiceNotices {
 public:
  // `manager` may be nullptr: then nobody is told anything. `loop` outlives the object.
  ServiceNotices(EventLoop& loop, std::unique_ptr<ServiceManager> manager);
  ServiceNotices(const ServiceNotices&) = delete;
  ServiceNotices& operator=(const ServiceNotices&) = delete;

  // The start is complete, or a reload is over, successful or not. The signs of life begin with the first one.
  void Ready();
  // A reload begins. Does nothing before the first Ready and while one is under way.
  void Reloading();
  // The end begins; nothing is told after it. Does nothing before the first Ready: a start that fails was never
  // there.
  void Stopping();

 private:
  void Tell(ServiceState state);
  void TryAgain();
  void GiveSignOfLife();

  std::unique_ptr<ServiceManager> manager_;
  std::optional<ServiceState> told_;  // the last one, or the one that is still to be told
  Timer retry_;
  std::optional<Timer> watchdog_;
};

}  // namespace trabex
