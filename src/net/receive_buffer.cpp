#include "net/receive_buffer.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <utility>

namespace trabex {

ReceiveBuffer::ReceiveBuffer() : block_(std::make_unique_for_overwrite<char[]>(kCapacity)) {}

std::string_view ReceiveBuffer::View(const ByteQueue& queue) const {
  return holder_ == &queue ? std::string_view(block_.get() + begin_, size_) : queue.View();
}

std::span<char> ReceiveBuffer::Space(ByteQueue& queue, std::size_t limit) {
  if (holder_ != &queue) {
    MoveOut();
    if (queue.Size() < kCapacity) TakeIn(queue);
  } else if (size_ == kCapacity) {
    MoveOut();
  }
  // More than the block takes goes through it into the queue.
  if (holder_ == nullptr) return {block_.get(), std::min(limit, kCapacity)};
  const std::size_t count = std::min(limit, kCapacity - size_);
  if (begin_ + size_ + count > kCapacity) {
    std::memmove(block_.get(), block_.get() + begin_, size_);
    begin_ = 0;
  }
  return {block_.get() + begin_ + size_, count};
}

void ReceiveBuffer::Add(ByteQueue& queue, std::size_t count) {
  if (holder_ == &queue) {
    size_ += count;
  } else {
    queue.Append({block_.get(), count});
    copied_ += count;
  }
}

void ReceiveBuffer::Consume(ByteQueue& queue, std::size_t count) {
  if (holder_ != &queue) return queue.RemoveFront(count);
  assert(count <= size_);
  begin_ += count;
  size_ -= count;
  if (size_ == 0) begin_ = 0;
}

void ReceiveBuffer::Discard(ByteQueue& queue) {
  queue.Clear();
  if (holder_ != &queue) return;
  holder_ = nullptr;
  begin_ = 0;
  size_ = 0;
}

void ReceiveBuffer::TakeIn(ByteQueue& queue) {
  const std::string_view bytes = queue.View();
  if (!bytes.empty()) std::memcpy(block_.get(), bytes.data(), bytes.size());
  holder_ = &queue;
  begin_ = 0;
  size_ = bytes.size();
  copied_ += size_;
  queue.Clear();
}

void ReceiveBuffer::MoveOut() {
  if (holder_ == nullptr) return;
  holder_->Append({block_.get() + begin_, size_});
  copied_ += size_;
  holder_ = nullptr;
  begin_ = 0;
  size_ = 0;
  // With assertions on, the next one gets another block, so that the address sanitizer finds a view that is
  // used beyond its time and would show the bytes of another connection.
  assert(Renew());
}

bool ReceiveBuffer::Renew() {
  block_ = std::make_unique_for_overwrite<char[]>(kCapacity);
  return true;
}

}  // namespace trabex
