// How much memory the process has allocated.
#pragma once

#include <cstddef>

namespace trabex {

// In bytes; what was freed does not count, whether the system has it back or not.
std::size_t HeapInUse();

}  // namespace trabex
