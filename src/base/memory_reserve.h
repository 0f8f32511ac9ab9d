// Memory that is kept for what has to be done when there is none.
#pragma once

#include <cstddef>
#include <memory>
#include <new>

namespace trabex {

// Given back to the system's allocator, it is what the last words to a client are made of.
class MemoryReserve {
 public:
  static constexpr std::size_t kBytes = 16384;

  // Raises std::bad_alloc.
  MemoryReserve() : memory_(std::make_unique<char[]>(kBytes)) {}

  void Release() { memory_.reset(); }
  // Raises nothing; whether there is a reserve now.
  bool Renew() {
    if (!memory_) memory_.reset(new (std::nothrow) char[kBytes]);
    return memory_ != nullptr;
  }

 private:
  std::unique_ptr<char[]> memory_;
};

}  // namespace trabex
