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

}  // namespace trabex
