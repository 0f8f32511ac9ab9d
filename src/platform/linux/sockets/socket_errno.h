// The one place where errno becomes one of our error numbers.
#pragma once

namespace trabex {

// Our number for `code`, the errno of a socket call; 0 for 0. A code that has no number of its own becomes
// 10107 "system call failure", for which the log has no text.
int SocketErrorOfErrno(int code);

}  // namespace trabex
