// The service manager that has started the process and wants to hear how it is: that it is ready, reloads, ends,
// and is still alive. On Linux this is the notification protocol of sd_notify(3).
#pragma once

#include <memory>
#include <optional>

#include "platform/event_loop.h"

namespace trabex {

enum class ServiceState {
  kReady,      // it does its work; also after a reload, whichever way that has ended
  kReloading,  // it reads its configuration again, until it is ready
  kStopping,   // it ends
  kAlive,      // nothing has changed
};

class ServiceManager {
 public:
  virtual ~ServiceManager() = default;
  // Tells the state, without waiting. False when it could not be told now; it can be tried again.
  virtual bool Tell(ServiceState state) = 0;
  // How long the manager waits for kAlive before it takes the process for dead; nothing: for ever.
  virtual std::optional<Milliseconds> WatchdogTime() const = 0;
};

// The manager that the environment of the process names; nullptr when there is none to be told anything.
std::unique_ptr<ServiceManager> FindServiceManager();

}  // namespace trabex
