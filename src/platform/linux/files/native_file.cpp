#include "platform/native_file.h"

#include <unistd.h>

namespace trabex {

void NativeFile::Close() {
  if (IsOpen()) close(static_cast<int>(std::exchange(value_, kNone)));
}

}  // namespace trabex
