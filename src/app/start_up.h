// The program from its command line to its exit status.
#pragma once

#include <span>
#include <string_view>

#include "app/program.h"

namespace trabex {

// Runs the program and returns its exit status: 0 for an orderly end, and for help, version and the request
// that another instance end; 1 for a start that failed (the reason is in the log and on standard error), a
// listener that failed or a reload that failed; 2 for a command line that cannot be read. `arguments` is
// without the program's own name.
int RunProgram(std::span<const std::string_view> arguments, Dependencies dependencies);

}  // namespace trabex
