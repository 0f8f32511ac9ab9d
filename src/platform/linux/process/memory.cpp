#include "platform/memory.h"

#include <malloc.h>

namespace trabex {

void ReturnFreedMemory() {
#ifdef __GLIBC__
  ::malloc_trim(0);
#endif
}

}  // namespace trabex
