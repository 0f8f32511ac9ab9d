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

// One that has happened, and is not taken.
class Event {
 public:
  Event() : descriptor_(eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC)) { EXPECT_GE(descriptor_, 0); }
  ~Event() { close(descriptor_); }
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  int Descriptor() const { return descriptor_; }

 private:
  int descriptor_;
};

TEST(FullIterations, EventsWithoutEndDoNotKeepTimersFromBeingCalled) {
  FakeClock clock;
  EventLoop loop(clock);
  int ticks = 0;
  Timer timer(loop, Milliseconds(0), [&] { ++ticks; });
  timer.Enable();
  std::vector<std::unique_ptr<Event>> events;
  std::vector<std::unique_ptr<FdWatcher>> watches;
  for (std::size_t i = 0; i < kReady; ++i) {
    const Event& event = *events.emplace_back(std::make_unique<Event>());
    watches.push_back(std::make_unique<FdWatcher>(loop, event.Descriptor(), [](FdReadiness) {}));
    watches.back()->SetInterest({.readable = true});
  }
  for (int i = 0; i < 1000; ++i) loop.RunOnce(kNow);
  EXPECT_GE(ticks, 5);
  EXPECT_LE(ticks, 10);
}

}  // namespace
}  // namespace trabex
