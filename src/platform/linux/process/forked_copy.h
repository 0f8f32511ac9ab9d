// What a forked copy of the program does first.
#pragma once

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdlib>

namespace trabex {

// Closes all descriptors but the standard ones and `kept`, so that a peer sees its connection close when the program
// closes it, and has the copy die with `program`, its parent. The standard ones stay, so that no file of the copy gets
// the number of one and something written to it.
inline void BeginForkedCopy(pid_t program, int kept) {
  const auto number = static_cast<unsigned>(kept);
  if (number > 3) close_range(3, number - 1, 0);
  close_range(number + 1, ~0U, 0);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != program) _exit(EXIT_FAILURE);  // it died before the line above
}

}  // namespace trabex
