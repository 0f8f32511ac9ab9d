#include "support/heap.h"

#include <malloc.h>

namespace trabex {

std::size_t HeapInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

}  // namespace trabex
