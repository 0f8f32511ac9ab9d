// What a test program takes from the heap. Linking it puts operators new and delete in place that count.
#pragma once

#include <cstddef>

namespace trabex {

// Looks at the calls of operator new while it exists; one at a time.
class CountedAllocations {
 public:
  CountedAllocations();
  ~CountedAllocations();
  CountedAllocations(const CountedAllocations&) = delete;
  CountedAllocations& operator=(const CountedAllocations&) = delete;

  std::size_t Count() const;
  // In bytes.
  std::size_t Largest() const;
};

// Has calls of operator new find no memory while it exists: the one behind `before` others, or with `times` so many one
// after the other from there on. One at a time.
class FailedAllocation {
 public:
  static constexpr std::size_t kAll = static_cast<std::size_t>(-1);

  explicit FailedAllocation(std::size_t before, std::size_t times = 1);
  ~FailedAllocation();
  FailedAllocation(const FailedAllocation&) = delete;
  FailedAllocation& operator=(const FailedAllocation&) = delete;

  // Whether there were so many calls.
  bool HasFailed() const;
};

// While one exists, calls of operator new are the test's own: none fails, and none is counted among those before one
// that does.
class OwnAllocations {
 public:
  OwnAllocations();
  ~OwnAllocations();
  OwnAllocations(const OwnAllocations&) = delete;
  OwnAllocations& operator=(const OwnAllocations&) = delete;
};

}  // namespace trabex
