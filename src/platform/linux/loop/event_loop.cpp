// The event loop on epoll.
#include "platform/event_loop.h"

#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <limits>

#include "platform/device_error.h"
#include "platform/linux/loop/event_loop_impl.h"

namespace trabex {

EventLoop::Impl::Impl(const Clock& the_clock) : clock(the_clock), epoll(epoll_create1(EPOLL_CLOEXEC)) {
  if (epoll < 0) RaiseDeviceError("EventLoop.EventLoop");
  fd_source = AddSource(watched_fds);
}

EventLoop::Impl::~Impl() {
  close(epoll);
}

std::uint8_t EventLoop::Impl::AddSource(EventSource& source) {
  auto slot = std::find(sources_.begin(), sources_.end(), nullptr);
  if (slot == sources_.end()) {
    assert(sources_.size() < 256);
    slot = sources_.insert(slot, &source);
  } else {
    *slot = &source;
  }
  return static_cast<std::uint8_t>(slot - sources_.begin());
}

void EventLoop::Impl::RemoveSource(std::uint8_t id) {
  sources_[id] = nullptr;
  // The next source may get this id and the same indices, so the rest of this iteration's events is
  // dropped.
  for (std::size_t i = 0; i < event_count_; ++i) {
    if (EventTarget::Unpack(events_[i].data.u64).source == id) events_[i].events = 0;
  }
}

int EventLoop::Impl::Control(int operation, int descriptor, std::uint32_t events, EventTarget target) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = target.Packed();
  return epoll_ctl(epoll, operation, descriptor, &event) == 0 ? 0 : errno;
}

int EventLoop::Impl::EpollTimeout(Milliseconds wait, MonotonicTime now) const {
  if (work.Waiting()) return 0;
  std::optional<Milliseconds> limit;
  if (wait >= Milliseconds{0}) limit = wait;
  if (const auto deadline = timers.NextDeadline()) {
    // Rounded up: an iteration that wakes just before its timer would find nothing to do.
    const auto until = std::max(Milliseconds{0}, std::chrono::ceil<Milliseconds>(*deadline - now));
    limit = limit ? std::min(*limit, until) : until;
  }
  if (!limit) return -1;
  return static_cast<int>(std::min<Milliseconds::rep>(limit->count(), std::numeric_limits<int>::max()));
}

std::size_t EventLoop::Impl::DispatchEvents() {
  for (std::size_t i = 0; i < event_count_; ++i) {
    if ((events_[i].events & (EPOLLERR | EPOLLHUP)) == 0) continue;
    const EventTarget target = EventTarget::Unpack(events_[i].data.u64);
    EventSource* const source = target.source < sources_.size() ? sources_[target.source] : nullptr;
    if (source != nullptr) source->OnBroken(target.index, target.generation);
  }
  std::size_t calls = 0;
  for (std::size_t i = 0; i < event_count_; ++i) {
    if (events_[i].events == 0) continue;
    const EventTarget target = EventTarget::Unpack(events_[i].data.u64);
    EventSource* const source = target.source < sources_.size() ? sources_[target.source] : nullptr;
    if (source != nullptr && source->OnReady(target.index, target.generation, events_[i].events)) ++calls;
  }
  event_count_ = 0;
  return calls;
}

void EventLoop::Impl::EndCalls() {
  for (EventSource* const source : sources_) {
    if (source != nullptr) source->AfterCalls();
  }
}

MonotonicTime EventLoop::Impl::Wait(Milliseconds wait) {
  const auto ask = [this](int timeout) {
    return epoll_wait(epoll, events_.data(), static_cast<int>(events_.size()), timeout);
  };
  MonotonicTime asked = clock.Monotonic();
  int count = ask(EpollTimeout(wait, asked));
  if (count == 0) {
    asked = clock.Monotonic();
    const auto deadline = timers.NextDeadline();
    if (deadline && *deadline <= asked) count = ask(0);
  }
  event_count_ = count > 0 ? static_cast<std::size_t>(count) : 0;
  const bool got_all = count >= 0 && event_count_ < kMaxEventsPerIteration;
  partial_iterations_ = got_all ? 0 : partial_iterations_ + 1;
  if (got_all) return asked;
  if (partial_iterations_ <= kMaxPartialIterations) return MonotonicTime::min();
  partial_iterations_ = 0;
  return asked;
}

bool EventLoop::Impl::Iterate(Milliseconds wait) {
  assert(!in_iteration && "the loop was run from inside one of its calls");
  if (in_iteration) return false;
  in_iteration = true;
  for (EventSource* const source : sources_) {
    if (source != nullptr) source->BeforeWait();
  }
  ++iteration;
  const MonotonicTime timers_until = Wait(wait);
  const bool observed = static_cast<bool>(turn_observer);
  const MonotonicTime began = observed ? clock.Monotonic() : MonotonicTime();
  std::size_t calls = work.CallPosts();
  calls += DispatchEvents();
  calls += timers.CallDue(timers_until);
  EndCalls();
  calls += work.EndIteration();
  EndCalls();
  if (observed && turn_observer) turn_observer(clock.Monotonic() - began);
  in_iteration = false;
  return calls > 0;
}

}  // namespace trabex
