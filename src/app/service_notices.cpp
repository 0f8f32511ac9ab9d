#include "app/service_notices.h"

#include <algorithm>
#include <utility>

namespace trabex {

namespace {

// Until a state that the manager could not take is told again.
constexpr Milliseconds kRetryInterval{200};

}  // namespace

ServiceNotices::ServiceNotices(EventLoop& loop, std::unique_ptr<ServiceManager> manager)
    : manager_(std::move(manager)), retry_(loop, kRetryInterval, [this] { TryAgain(); }) {
  if (!manager_) return;
  if (const auto time = manager_->WatchdogTime()) {
    watchdog_.emplace(loop, std::max(Milliseconds(1), *time / 2), [this] { GiveSignOfLife(); });
  }
}

void ServiceNotices::Ready() {
  if (!manager_ || told_ == ServiceState::kReady || told_ == ServiceState::kStopping) return;
  Tell(ServiceState::kReady);
  if (watchdog_ && !watchdog_->Enabled()) watchdog_->Enable();
}

void ServiceNotices::Reloading() {
  if (told_ == ServiceState::kReady) Tell(ServiceState::kReloading);
}

void ServiceNotices::Stopping() {
  if (told_ && told_ != ServiceState::kStopping) Tell(ServiceState::kStopping);
}

void ServiceNotices::Tell(ServiceState state) {
  told_ = state;
  TryAgain();
}

void ServiceNotices::TryAgain() {
  if (manager_->Tell(*told_)) {
    retry_.Disable();
  } else if (!retry_.Enabled()) {
    retry_.Enable();
  }
}

// One that is lost is made up for by the next.
void ServiceNotices::GiveSignOfLife() {
  manager_->Tell(ServiceState::kAlive);
}

}  // namespace trabex
