// The epoll half of the event loop, for the other files of this folder.
#pragma once

#include <sys/epoll.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "platform/common/turn_work.h"
#include "platform/event_loop.h"

namespace trabex {

// Somebody who has descriptors in the loop's epoll set and tells them apart by an index into a table and the
// generation of its use, so that an event for a descriptor that is gone reaches nobody.
class EventSource {
 public:
  virtual ~EventSource() = default;
  // `events` are epoll's. Returns whether anybody was called (false for a stale event).
  virtual bool OnReady(std::uint32_t index, std::uint32_t generation, std::uint32_t events) = 0;
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

// The watches of foreign descriptors, which share one source.
class ForeignTable final : public EventSource {
 public:
  using Ready = std::function<void(ForeignReadiness)>;

  struct Slot {
    int descriptor = -1;  // -1: free
    std::uint32_t generation = 0;
    ForeignReadiness interest;
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

  // `source` stays until RemoveSource, which also drops its events of the turn under way. At most 256.
  std::uint8_t AddSource(EventSource& source);
  void RemoveSource(std::uint8_t id);
  // epoll_ctl; returns 0 or errno.
  int Control(int operation, int descriptor, std::uint32_t events, EventTarget target);

  // One turn; `wait` negative: until something happens.
  bool Turn(Milliseconds wait);
  int EpollTimeout(Milliseconds wait) const;
  std::size_t DispatchEvents();

  // Bounds the events of one turn, so that timers and posts have their turn too. What is left stays in the
  // kernel's list, behind which served descriptors queue up again.
  static constexpr std::size_t kEventsPerTurn = 256;

  const Clock& clock;
  int epoll = -1;
  TimerHeap timers;
  TurnWork work;
  bool in_turn = false;
  bool quit = false;
  std::uint32_t turn = 0;  // counts the waits: events and work of one turn come after the same wait
  ForeignTable foreign;
  std::uint8_t foreign_source = 0;

 private:
  std::vector<EventSource*> sources_;
  std::array<epoll_event, kEventsPerTurn> events_{};
  std::size_t event_count_ = 0;
};

}  // namespace trabex
