// End requests are signals here, read from a descriptor like everything else that the loop waits for.
#include "platform/end_request.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "base/error.h"
#include "platform/foreign_watch.h"
#include "platform/linux/descriptor.h"

namespace trabex {

namespace {

sigset_t EndSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  struct sigaction hang_up {};
  // Ignored at the start means nohup.
  if (sigaction(SIGHUP, nullptr, &hang_up) != 0 || hang_up.sa_handler != SIG_IGN) {
    sigaddset(&signals, SIGHUP);
  }
  return signals;
}

// Keeps signals from their usual effect while it lives.
class BlockedSignals {
 public:
  explicit BlockedSignals(const sigset_t& signals) { pthread_sigmask(SIG_BLOCK, &signals, &before_); }
  ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  BlockedSignals(const BlockedSignals&) = delete;
  BlockedSignals& operator=(const BlockedSignals&) = delete;

 private:
  sigset_t before_{};
};

class SignalEndRequest final : public EndRequest {
 public:
  SignalEndRequest(EventLoop& loop, std::function<void()> requested)
      : SignalEndRequest(loop, EndSignals(), std::move(requested)) {}

  // A signal that came meanwhile asked for the end that is being made: it must not take its usual effect, the
  // sudden end of the process, when it is let through again.
  ~SignalEndRequest() override { TakeSignals(); }

 private:
  SignalEndRequest(EventLoop& loop, const sigset_t& signals, std::function<void()> requested)
      : requested_(std::move(requested)),
        blocked_(signals),
        descriptor_(signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC)),
        watch_(loop, descriptor_.Get(), [this](ForeignReadiness) { OnReady(); }) {
    if (!descriptor_) throw Error(error_number::kDeviceIo, "mEndRequest.WatchEndRequest", "Device I/O error");
    watch_.SetInterest({.readable = true});
  }

  // Whether there were any.
  bool TakeSignals() {
    bool any = false;
    signalfd_siginfo signal{};
    while (read(descriptor_.Get(), &signal, sizeof signal) == sizeof signal) any = true;
    return any;
  }

  void OnReady() {
    if (!TakeSignals()) return;
    const auto requested = requested_;  // this object may go in the call
    requested();
  }

  std::function<void()> requested_;
  BlockedSignals blocked_;
  Descriptor descriptor_;
  ForeignWatch watch_;
};

}  // namespace

std::unique_ptr<EndRequest> WatchEndRequest(EventLoop& loop, std::function<void()> requested) {
  return std::make_unique<SignalEndRequest>(loop, std::move(requested));
}

}  // namespace trabex
