#include "net/byte_queue.h"

#include <algorithm>
#include <cassert>
#include <cstring>

namespace trabex {

namespace {

constexpr std::size_t kMinBlock = 64;

}  // namespace

ByteQueue& ByteQueue::operator=(ByteQueue&& other) noexcept {
  block_ = std::move(other.block_);
  capacity_ = std::exchange(other.capacity_, 0);
  begin_ = std::exchange(other.begin_, 0);
  size_ = std::exchange(other.size_, 0);
  return *this;
}

void ByteQueue::MakeRoom(std::size_t count) {
  const std::size_t needed = size_ + count;
  if (begin_ + needed <= capacity_) return;
  // Moving within the block is paid for by what was taken away; a block that has become far too large is not
  // worth keeping.
  const bool fits = needed <= capacity_ && begin_ >= size_;
  if (fits && needed >= capacity_ / 8) {
    std::memmove(block_.get(), block_.get() + begin_, size_);
    begin_ = 0;
    return;
  }
  const std::size_t capacity = std::max({needed, size_ * 2, kMinBlock});
  auto block = std::make_unique_for_overwrite<char[]>(capacity);
  if (size_ > 0) std::memcpy(block.get(), block_.get() + begin_, size_);
  block_ = std::move(block);
  capacity_ = capacity;
  begin_ = 0;
}

void ByteQueue::Append(std::string_view bytes) {
  if (bytes.empty()) return;
  MakeRoom(bytes.size());
  std::memcpy(block_.get() + begin_ + size_, bytes.data(), bytes.size());
  size_ += bytes.size();
}

void ByteQueue::RemoveFront(std::size_t count) {
  assert(count <= size_);
  begin_ += count;
  size_ -= count;
  if (size_ == 0) Clear();
}

void ByteQueue::Clear() {
  block_.reset();
  capacity_ = 0;
  begin_ = 0;
  size_ = 0;
}

}  // namespace trabex
