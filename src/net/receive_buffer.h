// The buffer that all socket objects of a program receive into.
//
// What a peer sends is mostly read, used and gone before another socket is read, so one buffer serves all
// objects, and what lies in it can be passed on from where it lies. What an object has not consumed when
// another one is read is moved into a queue of its own, and comes back when it is read itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "net/byte_queue.h"

namespace trabex {

// `queue` identifies the object that reads: it holds what the object has not consumed while another one uses
// the buffer, or when it is more than the buffer takes.
class ReceiveBuffer {
 public:
  static constexpr std::size_t kCapacity = 65536;

  ReceiveBuffer();
  ReceiveBuffer(const ReceiveBuffer&) = delete;
  ReceiveBuffer& operator=(const ReceiveBuffer&) = delete;

  // What was received and not consumed. Valid until a call that is not const, for whichever queue.
  std::string_view View(const ByteQueue& queue) const;
  // Where the next bytes can be received: `limit` bytes at most, at least one (`limit` is not 0).
  std::span<char> Space(ByteQueue& queue, std::size_t limit);
  // `count` bytes were received into what Space gave.
  void Add(ByteQueue& queue, std::size_t count);
  // Drops the first `count` bytes of View.
  void Consume(ByteQueue& queue, std::size_t count);
  // Drops all of them; `queue` may be destroyed afterwards.
  void Discard(ByteQueue& queue);

  // How many bytes have been copied between the block and queues so far.
  std::uint64_t CopiedBytes() const { return copied_; }

 private:
  void TakeIn(ByteQueue& queue);
  void MoveOut();
  bool Renew();

  std::unique_ptr<char[]> block_;
  ByteQueue* holder_ = nullptr;  // whose bytes lie in the block; its queue is empty
  std::size_t begin_ = 0;
  std::size_t size_ = 0;
  std::uint64_t copied_ = 0;
};

}  // namespace trabex
