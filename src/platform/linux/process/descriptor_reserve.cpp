#include "platform/descriptor_reserve.h"

#include <fcntl.h>
#include <unistd.h>

namespace trabex {

void DescriptorReserve::Release() {
  if (descriptor_ < 0) return;
  close(static_cast<int>(descriptor_));
  descriptor_ = -1;
}

void DescriptorReserve::Hold() {
  if (descriptor_ < 0) descriptor_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
}

}  // namespace trabex
