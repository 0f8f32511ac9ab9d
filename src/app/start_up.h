// The program from its command line to its exit status.
#pragma once

#include <span>
#include <string_view>

#include "app/program.h"

namespace trabex {

// Runs the program and returns its exit status: 0 for an orderly end, and for help, version and a request to
// another instance; 1 for a start that failed (the reason is in the log and on standard error), a
// listener that failed, a reload that failed or a request that failed; 2 for a command line that cannot be read;
// 3 when there is no instance to be asked, 4 when it belongs to somebody else. `arguments` is
// without the program's own name.
int RunProgram(std::span<const std::string_view> arguments, Dependencies dependencies);

}  // namespace trabex
