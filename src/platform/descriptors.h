// How many files and sockets the process has open, and how many it may have.
#pragma once

#include <cstdint>

namespace trabex {

struct DescriptorUse {
  std::int64_t open = 0;
  std::int64_t limit = 0;
};

// Asks the system: some milliseconds for 20,000 that are open. 0 is what it does not tell.
DescriptorUse FindDescriptorUse();

}  // namespace trabex
