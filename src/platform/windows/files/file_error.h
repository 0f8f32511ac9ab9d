// The run-time errors of files for the system's own codes.
#pragma once

#include <string>

#include "platform/windows/win.h"

namespace trabex {

// The number (files.h) for `code`, that of GetLastError.
int FileErrorNumber(DWORD code);

[[noreturn]] void RaiseFileError(DWORD code, std::string source);

}  // namespace trabex
