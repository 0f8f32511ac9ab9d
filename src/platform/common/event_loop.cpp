// What the event loop and its timers do alike on every system.
#include "platform/event_loop.h"

#include <algorithm>
#include <memory>
#include <new>
#include <utility>

#include "event_loop_impl.h"  // that of the system

namespace trabex {

namespace {

constexpr Milliseconds kNoLimit{-1};

// A negative interval counts as none.
Milliseconds Sane(Milliseconds interval) {
  return std::max(interval, Milliseconds{0});
}

}  // namespace

EventLoop::EventLoop(const Clock& clock) : impl_(std::make_unique<Impl>(clock)) {}

EventLoop::~EventLoop() {
  impl_->work.Clear();
}

void EventLoop::Run() {
  while (!impl_->quit) impl_->Iterate(kNoLimit);
  impl_->quit = false;
}

void EventLoop::Quit() {
  impl_->quit = true;
}

bool EventLoop::RunOnce(Milliseconds wait) {
  return impl_->Iterate(Sane(wait));
}

void EventLoop::Post(std::function<void()> action) {
  impl_->work.Post(std::move(action));
}

void EventLoop::OnIterationEnd(std::function<void()> action) {
  impl_->work.OnIterationEnd(std::move(action));
}

void EventLoop::DeferredDelete(std::unique_ptr<DeferredDeletable> object) {
  try {
    impl_->work.DeferredDelete(std::move(object));
  } catch (const std::bad_alloc&) {
    // Lost is better than destroyed while its own call is on the stack.
    static_cast<void>(object.release());
  }
}

void EventLoop::ObserveTurns(std::function<void(std::chrono::nanoseconds)> observer) {
  impl_->turn_observer = std::move(observer);
}

const Clock& EventLoop::GetClock() const {
  return impl_->clock;
}

struct Timer::State {
  EventLoop::Impl& loop;
  TimerEntry entry;
};

Timer::Timer(EventLoop& loop, Milliseconds interval, std::function<void()> tick)
    : state_(new State{loop.GetImpl(), {}}) {
  state_->entry.interval = Sane(interval);
  state_->entry.tick = std::move(tick);
  state_->loop.timers.MakePlace();
}

Timer::~Timer() {
  state_->loop.timers.Forget(state_->entry);
}

void Timer::Enable() {
  state_->loop.timers.Arm(state_->entry, state_->loop.clock.Monotonic() + state_->entry.interval);
}

void Timer::Disable() {
  state_->loop.timers.Disarm(state_->entry);
}

bool Timer::Enabled() const {
  return state_->entry.position != TimerEntry::kNowhere;
}

void Timer::SetInterval(Milliseconds interval) {
  state_->entry.interval = Sane(interval);
  if (Enabled()) Enable();
}

}  // namespace trabex
