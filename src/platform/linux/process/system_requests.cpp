// The signals are read from a descriptor like everything else that the loop waits for.
#include "platform/system_requests.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <utility>

#include "platform/device_error.h"
#include "platform/fd_watcher.h"
#include "platform/linux/descriptor.h"
#include "platform/linux/process/signals.h"

namespace trabex {

namespace {

sigset_t SignalsToWatch() {
  sigset_t signals = RequestSignals();
  if (HangUpIsIgnored()) sigdelset(&signals, SIGHUP);
  return signals;
}

class SignalRequests final : public SystemRequests {
 public:
  SignalRequests(EventLoop& loop, SystemRequestEvents events)
      : SignalRequests(loop, SignalsToWatch(), std::move(events)) {}

  // A signal that came meanwhile, while the program ends perhaps, must not take its usual effect, the sudden
  // end of the process, when it is let through again.
  ~SignalRequests() override { TakeSignals(); }

 private:
  struct Asked {
    bool end = false;
    bool hang_up = false;
    bool reopen_log = false;
  };

  SignalRequests(EventLoop& loop, const sigset_t& signals, SystemRequestEvents events)
      : events_(std::move(events)),
        blocked_(signals),
        descriptor_(signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC)),
        watch_(loop, descriptor_.Get(), [this](FdReadiness) { OnReady(); }) {
    if (!descriptor_) {
      RaiseDeviceError("mSystemRequests.WatchSystemRequests");
    }
    watch_.SetInterest({.readable = true});
  }

  Asked TakeSignals() {
    Asked asked;
    signalfd_siginfo signal{};
    while (read(descriptor_.Get(), &signal, sizeof signal) == sizeof signal) {
      switch (signal.ssi_signo) {
        case SIGHUP:
          asked.hang_up = true;
          break;
        case SIGUSR1:
          asked.reopen_log = true;
          break;
        default:
          asked.end = true;
      }
    }
    return asked;
  }

  // The log first, so that the lines of the end are in the new file.
  void OnReady() {
    const Asked asked = TakeSignals();
    const SystemRequestEvents events = events_;  // this object may go in the calls
    const std::weak_ptr<char> still_here = here_;
    if (asked.reopen_log && events.reopen_log) events.reopen_log();
    if (asked.end && events.end && !still_here.expired()) events.end();
    if (asked.hang_up && events.hang_up && !still_here.expired()) events.hang_up();
  }

  SystemRequestEvents events_;
  BlockedSignals blocked_;
  Descriptor descriptor_;
  FdWatcher watch_;
  std::shared_ptr<char> here_ = std::make_shared<char>();
};

}  // namespace

std::unique_ptr<SystemRequests> WatchSystemRequests(EventLoop& loop, SystemRequestEvents events) {
  return std::make_unique<SignalRequests>(loop, std::move(events));
}

bool HangUpIsIgnored() {
  struct sigaction action {};
  return sigaction(SIGHUP, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace trabex
