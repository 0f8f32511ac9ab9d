// The numbers of messages that sockets send to the loop's window.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/windows/win.h"

namespace trabex {

class EventSource;

// Whose socket a message speaks of.
struct MessageTarget {
  EventSource* source = nullptr;  // nullptr: of none
  SOCKET socket = INVALID_SOCKET;
  std::uint32_t index = 0;
  std::uint32_t generation = 0;
};

// One number for each socket, of those that the system leaves to applications. A number that came back is the last
// to be given out again: messages of the earlier socket may still be under way, and no message says when it was
// sent. What comes nevertheless names another socket.
class MessageNumbers {
 public:
  // WM_APP and all that follow it up to those that RegisterWindowMessage gives.
  static constexpr UINT kFirst = WM_APP;
  static constexpr std::size_t kCount = 0xC000 - WM_APP;

  MessageNumbers() : targets_(kCount), free_(kCount) {
    for (std::size_t i = 0; i < kCount; ++i) free_[i] = static_cast<std::uint16_t>(i);
  }

  // 0 when all are given out.
  UINT Take(const MessageTarget& target) {
    if (used_ == kCount) return 0;
    const std::size_t slot = free_[(first_free_ + used_++) % kCount];
    targets_[slot] = target;
    return kFirst + static_cast<UINT>(slot);
  }
  void GiveBack(UINT number) {
    const std::size_t slot = number - kFirst;
    targets_[slot] = {};
    // The given-out ones are the `used_` places from `first_free_` on; their values do not matter.
    free_[first_free_] = static_cast<std::uint16_t>(slot);
    first_free_ = (first_free_ + 1) % kCount;
    --used_;
  }
  // nullptr for a number that nobody has, and for one that another socket has.
  const MessageTarget* Find(UINT number, SOCKET socket) const {
    if (number < kFirst || number - kFirst >= kCount) return nullptr;
    const MessageTarget& target = targets_[number - kFirst];
    return target.source != nullptr && target.socket == socket ? &target : nullptr;
  }
  // Nobody has the numbers of `source` any more; it gives none back.
  void Forget(const EventSource& source) {
    for (std::size_t slot = 0; slot < kCount; ++slot) {
      if (targets_[slot].source == &source) GiveBack(kFirst + static_cast<UINT>(slot));
    }
  }

 private:
  std::vector<MessageTarget> targets_;
  // A ring: behind the places of those that are given out are the free ones, the one that is free longest first.
  std::vector<std::uint16_t> free_;
  std::size_t first_free_ = 0;
  std::size_t used_ = 0;
};

}  // namespace trabex
