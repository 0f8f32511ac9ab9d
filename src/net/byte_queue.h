// Bytes that wait: appended at the back, taken away at the front.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>
#include <utility>

namespace trabex {

// One block of memory, moved together only after at least as many bytes were taken away as are moved, so each
// byte costs a bounded number of copies. An empty queue holds no memory.
class ByteQueue {
 public:
  ByteQueue() = default;
  ByteQueue(ByteQueue&& other) noexcept { *this = std::move(other); }
  ByteQueue& operator=(ByteQueue&& other) noexcept;
  ByteQueue(const ByteQueue&) = delete;
  ByteQueue& operator=(const ByteQueue&) = delete;

  bool Empty() const { return size_ == 0; }
  std::size_t Size() const { return size_; }
  // All bytes; valid until the next call that is not const.
  std::string_view View() const { return {block_.get() + begin_, size_}; }

  // `bytes` must not point into the queue.
  void Append(std::string_view bytes);
  // `count` is Size() at most.
  void RemoveFront(std::size_t count);
  void Clear();

  // The memory held, in bytes.
  std::size_t Capacity() const { return capacity_; }

 private:
  void MakeRoom(std::size_t count);

  std::unique_ptr<char[]> block_;
  std::size_t capacity_ = 0;
  std::size_t begin_ = 0;
  std::size_t size_ = 0;
};

}  // namespace trabex
