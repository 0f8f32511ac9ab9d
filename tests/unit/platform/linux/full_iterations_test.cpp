// What happens when more descriptors are ready than the loop takes from the system at a time.
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include "platform/event_loop.h"
#include "platform/fd_watcher.h"
#include "support/fake_clock.h"

namespace trabex {
namespace {

constexpr Milliseconds kNow{0};
constexpr std::size_t kReady = 600;  // more than twice as many as it takes

class Event {
 public:
  Event() : descriptor_(eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC)) { EXPECT_GE(descriptor_, 0); }
  ~Event() { close(descriptor_); }
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  int Descriptor() const { return descriptor_; }
  void Take() const {
    eventfd_t value = 0;
    EXPECT_EQ(eventfd_read(descriptor_, &value), 0);
  }

 private:
  int descriptor_;
};

class FullIterations : public testing::Test {
 protected:
  // Watches that many events, all of which have happened.
  void WatchEvents(bool taken) {
    for (std::size_t i = 0; i < kReady; ++i) {
      const Event& event = *events_.emplace_back(std::make_unique<Event>());
      watches_.push_back(
          std::make_unique<FdWatcher>(loop_, event.Descriptor(), [this, &event, taken](FdReadiness) {
            ++calls_;
            if (taken) event.Take();
          }));
      watches_.back()->SetInterest({.readable = true});
    }
  }

  FakeClock clock_;
  EventLoop loop_{clock_};
  std::size_t calls_ = 0;

 private:
  std::vector<std::unique_ptr<Event>> events_;
  std::vector<std::unique_ptr<FdWatcher>> watches_;
};

TEST_F(FullIterations, WhatHasHappenedComesBeforeTimersThatAreDue) {
  std::size_t calls_before_tick = 0;
  Timer timer(loop_, std::chrono::seconds(1), [&] { calls_before_tick = calls_; });
  timer.Enable();
  WatchEvents(true);
  clock_.Advance(std::chrono::minutes(1));
  while (loop_.RunOnce(kNow)) {
  }
  EXPECT_EQ(calls_, kReady);
  EXPECT_EQ(calls_before_tick, kReady);
}

TEST_F(FullIterations, EventsWithoutEndDoNotKeepTimersFromBeingCalled) {
  int ticks = 0;
  Timer timer(loop_, Milliseconds(0), [&] { ++ticks; });
  timer.Enable();
  WatchEvents(false);
  for (int i = 0; i < 1000; ++i) loop_.RunOnce(kNow);
  EXPECT_GE(ticks, 5);
  EXPECT_LE(ticks, 10);
}

}  // namespace
}  // namespace trabex
