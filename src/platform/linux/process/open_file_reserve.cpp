#include "platform/open_file_reserve.h"

#include <fcntl.h>

namespace trabex {

void OpenFileReserve::Hold() {
  if (!held_.IsOpen()) held_ = NativeFile(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

}  // namespace trabex
