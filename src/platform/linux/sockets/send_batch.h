// What sockets send in the calls of one loop iteration: it is collected, and handed to the kernel when the calls
// are done, or when it has become much. A peer that is woken by each send would take turns with this program; one
// that gets several at a time has more to do in each of its own turns. And what ends with the connection goes in
// one packet with the end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/sockets.h"

namespace trabex {

// Slots of bytes, each of one socket. A slot is due until the kernel is asked to take its bytes; what it does not
// take stays in the slot, which is then blocked until the socket can be written to.
class SendBatch {
 public:
  using Slot = std::uint32_t;
  static constexpr Slot kNone = 0;
  // Of one socket. More, such as a whole record's content, is not worth a copy.
  static constexpr std::size_t kMaxBytes = 16383;
  // Sockets that wait, so that no peer waits long for what others have to say.
  static constexpr std::size_t kMaxDue = 16;

  // An empty slot for the socket; it is due.
  Slot Take(SocketHandle socket);
  void Release(Slot slot);

  SocketHandle SocketOf(Slot slot) const { return At(slot).socket; }
  std::string_view Bytes(Slot slot) const { return At(slot).bytes; }
  void Append(Slot slot, std::string_view bytes) { At(slot).bytes.append(bytes); }
  bool IsBlocked(Slot slot) const { return At(slot).state == State::kBlocked; }
  // The kernel took `count` bytes of the slot, and no more now.
  void Block(Slot slot, std::size_t count);

  bool IsFull() const { return due_.size() >= kMaxDue; }
  // The slot that is due longest, which the caller releases or blocks; kNone when none is.
  Slot NextDue();

 private:
  enum class State : std::uint8_t { kFree, kDue, kBlocked };

  struct Entry {
    SocketHandle socket;
    std::string bytes;
    State state = State::kFree;
  };

  Entry& At(Slot slot) { return slots_[slot - 1]; }
  const Entry& At(Slot slot) const { return slots_[slot - 1]; }

  std::vector<Entry> slots_;
  std::vector<Slot> free_;
  // In the order in which they were taken. Among them are some that are due no more.
  std::vector<Slot> due_;
  std::size_t next_due_ = 0;
};

}  // namespace trabex
