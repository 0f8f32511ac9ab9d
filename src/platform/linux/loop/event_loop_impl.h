// The epoll half of the event loop, for the other files of this folder.
#pragma once

#include <sys/epoll.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "platform/common/deferred_tasks.h"
#include "platform/common/timer_heap.h"
#include "platform/event_loop.h"

namespace trabex {

// An owner of descriptors in the loop's epoll set, each addressed by its index in the owner's table and the
// generation of that entry, so that an event for a descriptor that is gone is dropped.
class EventSource {
 public:
  virtual ~EventSource() = default;
  // `events` are epoll's. Returns whether anybody was called (false for a stale event).
  virtual bool OnReady(std::uint32_t index, std::uint32_t generation, std::uint32_t events) = 0;
  // Called before the OnReady of all descriptors, for one that is broken, or ended in both directions.
  virtual void OnBroken(std::uint32_t /*index*/, std::uint32_t /*generation*/) {}
  // Called when the calls of an iteration are done, and again when those of its end are.
  virtual void AfterCalls() {}
  // Called before the loop asks the kernel for events: the place for work that changes what it will say.
  virtual void BeforeWait() {}
};

// Where an event goes, packed into the 64 bits that epoll keeps for us.
struct EventTarget {
  static constexpr unsigned kIndexBits = 24;
  static constexpr std::uint32_t kMaxIndex = (1U << kIndexBits) - 1;

  std::uint8_t source = 0;
  std::uint32_t index = 0;  // 0 to kMaxIndex
  std::uint32_t generation = 0;

  std::uint64_t Packed() const {
    return (std::uint64_t{generation} << 32) | (std::uint64_t{source} << kIndexBits) | index;
  }
  static EventTarget Unpack(std::uint64_t packed) {
    return {static_cast<std::uint8_t>((packed >> kIndexBits) & 0xFF),
            static_cast<std::uint32_t>(packed & kMaxIndex), static_cast<std::uint32_t>(packed >> 32)};
  }
};

// The descriptors of all FdWatchers, which share one source.
class FdTable final : public EventSource {
 public:
  using Ready = std::function<void(FdReadiness)>;

  struct Slot {
    int descriptor = -1;  // -1: free
    std::uint32_t generation = 0;
    FdReadiness interest;
    bool in_set = false;
    Ready ready;
  };

  std::uint32_t Add(int descriptor, Ready ready);
  void Remove(std::uint32_t index);
  Slot& At(std::uint32_t index) { return slots_[index]; }
  bool OnReady(std::uint32_t index, std::uint32_t generation, std::uint32_t events) override;

 private:
  std::vector<Slot> slots_;
  std::vector<std::uint32_t> free_;
};

struct EventLoop::Impl {
  explicit Impl(const Clock& the_clock);
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  // `source` stays until RemoveSource, which also drops its events of the iteration under way. At most 256.
  std::uint8_t AddSource(EventSource& source);
  void RemoveSource(std::uint8_t id);
  // epoll_ctl; returns 0 or errno.
  int Control(int operation, int descriptor, std::uint32_t events, EventTarget target);

  // How many descriptors the kernel has announced in this iteration.
  std::size_t EventCount() const { return event_count_; }
  // One iteration; `wait` negative: until something happens.
  bool Iterate(Milliseconds wait);
  int EpollTimeout(Milliseconds wait, MonotonicTime now) const;
  // Waits for events, and takes them. Returns up to which deadline timers are to be called behind them: only those that
  // were over before the system was asked for all that has happened. At the end of a standstill much has happened and
  // many times are over; what has happened comes first, such as a reply before the time in which it had to come.
  MonotonicTime Wait(Milliseconds wait);
  std::size_t DispatchEvents();
  void EndCalls();
  // Bounds the events of one iteration, so that posts are not held up. What is left stays in the kernel's list, and
  // served descriptors join its end again.
  static constexpr std::size_t kMaxEventsPerIteration = 256;
  // So many iterations that did not get all events may pass before due timers are called.
  static constexpr int kMaxPartialIterations = 128;

  const Clock& clock;
  int epoll = -1;
  TimerHeap timers;
  DeferredTasks work;
  bool in_iteration = false;
  bool quit = false;
  std::uint32_t iteration = 0;  // counts the iterations
  std::function<void(std::chrono::nanoseconds)> turn_observer;
  FdTable watched_fds;
  std::uint8_t fd_source = 0;

 private:
  std::vector<EventSource*> sources_;
  std::array<epoll_event, kMaxEventsPerIteration> events_{};
  std::size_t event_count_ = 0;
  int partial_iterations_ = 0;  // one after the other, up to this one
};

}  // namespace trabex
