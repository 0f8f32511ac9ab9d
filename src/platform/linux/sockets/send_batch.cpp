#include "platform/linux/sockets/send_batch.h"

namespace trabex {

SendBatch::Slot SendBatch::Take(SocketHandle socket) {
  if (free_.empty()) {
    // So that Release needs no memory.
    if (free_.capacity() <= slots_.size()) free_.reserve(2 * slots_.size() + kMaxDue);
    slots_.emplace_back();
    free_.push_back(static_cast<Slot>(slots_.size()));
  }
  const Slot slot = free_.back();
  due_.push_back(slot);
  free_.pop_back();
  At(slot).socket = socket;
  At(slot).state = State::kDue;
  return slot;
}

void SendBatch::Release(Slot slot) {
  Entry& entry = At(slot);
  entry.state = State::kFree;
  entry.bytes.clear();
  // As many as are used in each iteration keep their memory.
  if (free_.size() >= kMaxDue) entry.bytes.shrink_to_fit();
  free_.push_back(slot);
}

void SendBatch::Block(Slot slot, std::size_t count) {
  At(slot).bytes.erase(0, count);
  At(slot).state = State::kBlocked;
}

SendBatch::Slot SendBatch::NextDue() {
  while (next_due_ < due_.size()) {
    const Slot slot = due_[next_due_++];
    if (At(slot).state == State::kDue) return slot;
  }
  due_.clear();
  next_due_ = 0;
  return kNone;
}

}  // namespace trabex
