#include "platform/native_file.h"

#include "platform/windows/win.h"

namespace trabex {

void NativeFile::Close() {
  if (IsOpen()) CloseHandle(reinterpret_cast<HANDLE>(std::exchange(value_, kNone)));
}

}  // namespace trabex
