// The timers of an event loop.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <optional>

#include "platform/event_loop.h"

namespace trabex {

// One timer as the heap keeps it. Owned by its Timer, which takes it out of the heap before it goes.
struct TimerEntry {
  static constexpr std::size_t kNowhere = std::numeric_limits<std::size_t>::max();

  Milliseconds interval{0};
  std::function<void()> tick;
  MonotonicTime deadline{};
  std::uint64_t order = 0;          // of arming; decides between timers of one deadline
  std::size_t position = kNowhere;  // in the heap, kNowhere while disabled
};

// The armed timers, earliest first. Arming and disarming cost O(log n), finding the next one O(1).
class TimerHeap {
 public:
  // Makes a place for one entry more, which is Forgotten at its end. Raises std::bad_alloc.
  void MakePlace();
  // Arms `entry` (again) for `deadline`; it has a place.
  void Arm(TimerEntry& entry, MonotonicTime deadline);
  // A disarmed entry may be disarmed again.
  void Disarm(TimerEntry& entry);
  std::optional<MonotonicTime> NextDeadline() const;
  // Calls what is due at `now` and arms it for its next interval. What is armed meanwhile waits for the next
  // call of this function, due or not. Returns the number of calls.
  std::size_t CallDue(MonotonicTime now);
  // To be called before an entry is destroyed: it may be the one whose tick runs.
  void Forget(TimerEntry& entry);

 private:
  static bool Earlier(const TimerEntry& a, const TimerEntry& b);
  void Place(TimerEntry* entry, std::size_t position);
  void MoveUp(std::size_t position);
  void MoveDown(std::size_t position);

  // A place for each entry; the armed ones are in the first of them. It grows by small pieces: where memory is short, one
  // for the timers of thousands of sessions is not to be had.
  std::deque<TimerEntry*> heap_;
  std::size_t armed_ = 0;
  std::uint64_t next_order_ = 0;
  TimerEntry* called_ = nullptr;  // the one whose tick runs, nullptr once that one is gone
};

}  // namespace trabex
