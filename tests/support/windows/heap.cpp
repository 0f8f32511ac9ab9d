#include "support/heap.h"

#include <algorithm>
#include <vector>

#include "platform/windows/win.h"

namespace trabex {

std::size_t HeapInUse() {
  std::vector<HANDLE> heaps(GetProcessHeaps(0, nullptr));
  heaps.resize(
      std::min<std::size_t>(heaps.size(), GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data())));
  std::size_t total = 0;
  for (const HANDLE heap : heaps) {
    PROCESS_HEAP_ENTRY entry{};
    while (HeapWalk(heap, &entry) != 0) {
      if ((entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0) total += entry.cbData;
    }
  }
  return total;
}

}  // namespace trabex
