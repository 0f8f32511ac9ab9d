// The right to one more open file or socket, kept back for something that has to be opened even when the
// process has used up all others.
#pragma once

#include "platform/native_file.h"

namespace trabex {

// On a system that does not limit them, this does nothing.
class OpenFileReserve {
 public:
  // Begins to hold it.
  OpenFileReserve() { Hold(); }

  // Gives it back, so that the next thing can be opened.
  void Release() { held_.Close(); }
  // Takes it again, directly after the other thing was closed. When there is none to be had, nothing is held
  // until the next call.
  void Hold();

 private:
  NativeFile held_;
};

}  // namespace trabex
