// The one place where errno becomes one of our error numbers.
#pragma once

namespace trabex {

// Our number for `code`, an errno of a socket call; 0 for 0. A code that has no number of its own
// becomes 10107 "system call failure", which the error texts do not know.
int DesignedSocketError(int code);

}  // namespace trabex
