// The error of a system that refuses what the program cannot do without: an event queue, a socket, a process.
#pragma once

#include <string>
#include <utility>

#include "base/error.h"

namespace trabex {

[[noreturn]] inline void RaiseDeviceError(std::string source) {
  throw Error(error_number::kDeviceIo, std::move(source), "Device I/O error");
}

}  // namespace trabex
