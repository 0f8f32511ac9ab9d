// The one place where errno becomes a designed error number.
#pragma once

namespace trabex {

// The designed number for `code`, an errno of a socket call; 0 for 0. A code that has no number of its own
// becomes 10107 "system call failure", which the error texts do not know.
int DesignedSocketError(int code);

}  // namespace trabex
