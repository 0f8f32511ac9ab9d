// Memory that is kept for the time when there is none.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <new>

namespace trabex {

// Two pieces. The headroom is given to whoever needs memory and finds none: it is small change for what is there
// already, such as a line of a session. The rest is given back only for the last words to somebody for whom there is no
// memory. While either is used up, nothing new should begin. One object at a time gives its headroom, the latest.
class MemoryReserve {
 public:
  static constexpr std::size_t kHeadroom = 65536;
  static constexpr std::size_t kLastWords = 16384;

  // Raises std::bad_alloc.
  MemoryReserve();
  ~MemoryReserve();
  MemoryReserve(const MemoryReserve&) = delete;
  MemoryReserve& operator=(const MemoryReserve&) = delete;

  // Gives all of it back.
  void Release();
  // Raises nothing: where there is no memory for a piece, that is not there.
  void Renew();
  bool IsThere() const { return last_words_ != nullptr && headroom_ != nullptr; }

 private:
  static void GiveHeadroom();

  std::unique_ptr<char[]> last_words_;
  std::atomic<char*> headroom_ = nullptr;  // owned; memory may be out in any thread
  std::new_handler handler_before_;
};

}  // namespace trabex
