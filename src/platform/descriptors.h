// How many files and sockets the process has open, and how many it may have.
#pragma once

#include <cstdint>

namespace trabex {

struct DescriptorUse {
  std::int64_t open = 0;
  std::int64_t limit = 0;
};

// Asks the system, which takes a moment for each that is open. 0 is what it does not tell.
DescriptorUse FindDescriptorUse();

}  // namespace trabex
