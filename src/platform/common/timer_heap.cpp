#include "platform/common/timer_heap.h"

#include <utility>

#include "platform/common/call_handler.h"

namespace trabex {

bool TimerHeap::Earlier(const TimerEntry& a, const TimerEntry& b) {
  if (a.deadline != b.deadline) return a.deadline < b.deadline;
  return a.order < b.order;
}

void TimerHeap::Place(TimerEntry* entry, std::size_t position) {
  heap_[position] = entry;
  entry->position = position;
}

void TimerHeap::MoveUp(std::size_t position) {
  TimerEntry* const entry = heap_[position];
  while (position > 0) {
    const std::size_t parent = (position - 1) / 2;
    if (!Earlier(*entry, *heap_[parent])) break;
    Place(heap_[parent], position);
    position = parent;
  }
  Place(entry, position);
}

void TimerHeap::MoveDown(std::size_t position) {
  TimerEntry* const entry = heap_[position];
  for (;;) {
    std::size_t child = 2 * position + 1;
    if (child >= armed_) break;
    if (child + 1 < armed_ && Earlier(*heap_[child + 1], *heap_[child])) ++child;
    if (!Earlier(*heap_[child], *entry)) break;
    Place(heap_[child], position);
    position = child;
  }
  Place(entry, position);
}

void TimerHeap::MakePlace() {
  heap_.push_back(nullptr);
}

void TimerHeap::Arm(TimerEntry& entry, MonotonicTime deadline) {
  Disarm(entry);
  entry.deadline = deadline;
  entry.order = next_order_++;
  heap_[armed_] = &entry;
  MoveUp(armed_++);
}

void TimerHeap::Disarm(TimerEntry& entry) {
  if (entry.position == TimerEntry::kNowhere) return;
  const std::size_t hole = entry.position;
  entry.position = TimerEntry::kNowhere;
  TimerEntry* const last = heap_[--armed_];
  if (last == &entry) return;
  Place(last, hole);
  MoveUp(hole);
  MoveDown(last->position);
}

std::optional<MonotonicTime> TimerHeap::NextDeadline() const {
  if (armed_ == 0) return std::nullopt;
  return heap_.front()->deadline;
}

std::size_t TimerHeap::CallDue(MonotonicTime now) {
  // A timer armed from here on has a later order, and a deadline that is not before `now`, so it comes after
  // every one that was due: reaching such a timer means that the due ones are done.
  const std::uint64_t first_new_order = next_order_;
  std::size_t calls = 0;
  while (armed_ > 0 && heap_.front()->deadline <= now && heap_.front()->order < first_new_order) {
    TimerEntry& entry = *heap_.front();
    MonotonicTime next = entry.deadline + entry.interval;
    if (next <= now) next = now + entry.interval;  // missed ticks are not made up for
    Arm(entry, next);
    // The tick is taken out for the call, because the timer may be destroyed in it.
    called_ = &entry;
    std::function<void()> tick = std::move(entry.tick);
    CallHandler(tick);
    ++calls;
    if (called_ != nullptr) called_->tick = std::move(tick);
    called_ = nullptr;
  }
  return calls;
}

void TimerHeap::Forget(TimerEntry& entry) {
  Disarm(entry);
  heap_.pop_back();
  if (called_ == &entry) called_ = nullptr;
}

}  // namespace trabex
