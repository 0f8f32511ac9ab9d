// The process's memory, as the system sees it.
#pragma once

namespace trabex {

// Gives what was freed back to the system, as far as it can be; without this the allocator keeps most of it. Takes
// milliseconds where much is in use.
void ReturnFreedMemory();

}  // namespace trabex
