#include "platform/descriptors.h"

#include "platform/windows/win.h"

namespace trabex {

// Handles of all kinds; the system sets no limit that could be told.
DescriptorUse FindDescriptorUse() {
  DWORD count = 0;
  if (GetProcessHandleCount(GetCurrentProcess(), &count) == 0) return {};
  return {.open = count, .limit = 0};
}

}  // namespace trabex
