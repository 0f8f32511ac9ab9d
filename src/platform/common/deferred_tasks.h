// The part of the event loop that needs no operating system: what is put off to a point of the loop
// iteration, and the timers. The loop of each platform owns one and says when each point is reached.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "platform/event_loop.h"

namespace trabex {

// Calls `action` where nobody is left to take an exception: one that leaves it is a defect of the handler, so
// it stops a debug build; otherwise the loop goes on with the next call.
template <class Action>
void CallHandler(const Action& action) noexcept {
  try {
    action();
  } catch (...) {
    assert(false && "an exception left an event handler");
  }
}

// One timer as the heap keeps it. Owned by its Timer, which takes it out of the heap before it goes.
struct TimerEntry {
  static constexpr std::size_t kNowhere = std::numeric_limits<std::size_t>::max();

  Milliseconds interval{0};
  std::function<void()> tick;
  MonotonicTime deadline{};
  std::uint64_t order = 0;          // of arming; tells timers of one deadline apart
  std::size_t position = kNowhere;  // in the heap, kNowhere while disabled
};

// The armed timers, earliest first. Arming and disarming cost O(log n), finding the next one O(1).
class TimerHeap {
 public:
  // Arms `entry` (again) for `deadline`.
  void Arm(TimerEntry& entry, MonotonicTime deadline);
  // A disarmed entry may be disarmed again.
  void Disarm(TimerEntry& entry);
  std::optional<MonotonicTime> NextDeadline() const;
  // Calls what is due at `now` and arms it for its next interval. What is armed meanwhile waits for the next
  // call of this function, due or not. Returns the number of calls.
  std::size_t CallDue(MonotonicTime now);
  // To be told before an entry is destroyed: it may be the one that is being called.
  void Forget(TimerEntry& entry);

 private:
  static bool Earlier(const TimerEntry& a, const TimerEntry& b);
  void Place(TimerEntry* entry, std::size_t position);
  void MoveUp(std::size_t position);
  void MoveDown(std::size_t position);

  std::vector<TimerEntry*> heap_;
  std::uint64_t next_order_ = 0;
  TimerEntry* called_ = nullptr;  // the one whose tick runs, nullptr once that one is gone
};

// Posted actions, those of the iteration's end, and objects to be deleted then.
class DeferredTasks {
 public:
  void Post(std::function<void()> action) { posts_.push_back(std::move(action)); }
  void OnIterationEnd(std::function<void()> action) { iteration_end_.push_back(std::move(action)); }
  void DeferredDelete(std::unique_ptr<DeferredDeletable> object) {
    if (object) to_delete_.push_back(std::move(object));
  }

  // Whether an iteration has something to do without any event, so that it must not wait.
  bool Waiting() const { return !posts_.empty() || !iteration_end_.empty() || !to_delete_.empty(); }
  // Calls what was posted before this call. Returns the number of calls.
  std::size_t CallPosts();
  // Runs the actions of the iteration's end and then deletes the objects, again and again while these add
  // more of either, but not for ever: what is left then waits for the next iteration. Returns the number of
  // actions.
  std::size_t EndIteration();
  // Deletes the objects and drops all actions; for the loop's end.
  void Clear();

 private:
  std::vector<std::function<void()>> posts_;
  std::vector<std::function<void()>> running_posts_;  // kept for its memory
  std::vector<std::function<void()>> iteration_end_;
  std::vector<std::unique_ptr<DeferredDeletable>> to_delete_;
};

}  // namespace trabex
