#include "platform/memory.h"

#include "platform/windows/win.h"

namespace trabex {

void ReturnFreedMemory() {
  HeapCompact(GetProcessHeap(), 0);
}

}  // namespace trabex
