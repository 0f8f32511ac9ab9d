// What a test program takes from the heap. Linking it puts operators new and delete in place that count.
#pragma once

#include <cstddef>

namespace trabex {

// Counts the calls of operator new while it exists; one at a time.
class CountedAllocations {
 public:
  CountedAllocations();
  ~CountedAllocations();
  CountedAllocations(const CountedAllocations&) = delete;
  CountedAllocations& operator=(const CountedAllocations&) = delete;

  std::size_t Count() const;
};

// Has one call of operator new find no memory while it exists: the one behind `before` others. One at a time.
class FailedAllocation {
 public:
  explicit FailedAllocation(std::size_t before);
  ~FailedAllocation();
  FailedAllocation(const FailedAllocation&) = delete;
  FailedAllocation& operator=(const FailedAllocation&) = delete;

  // Whether there were so many calls.
  bool HasFailed() const;
};

}  // namespace trabex
