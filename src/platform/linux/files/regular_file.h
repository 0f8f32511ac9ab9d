// Opening nothing but regular files.
#pragma once

#include <sys/types.h>

#include <string>

#include "platform/linux/descriptor.h"

namespace trabex {

// Opens a regular file; empty with errno otherwise. Anything else is not opened at all, since opening alone
// may wait (a FIFO) or move something (a tape); the second check is for what took its place in between.
// `mode` is that of a file which this creates, less the system's mask.
Descriptor OpenRegularFile(const std::string& path, int flags, mode_t mode = 0666);

}  // namespace trabex
