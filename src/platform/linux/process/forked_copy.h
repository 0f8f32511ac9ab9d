// What a forked copy of the program does first.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdlib>

namespace trabex {

// Closes all descriptors but `kept`, so that a peer sees its connection close when
// the program closes it, and whoever waits for the end of the program's output is not kept waiting by the copy. The
// standard ones become /dev/null, so that no file of the copy gets the number of one and something written to it; where
// there is no such device they stay.
inline void CloseAllButOne(int kept) {
  const auto number = static_cast<unsigned>(kept);
  if (number > 3) close_range(3, number - 1, 0);
  close_range(number + 1, ~0U, 0);
  const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (nothing < 0) return;
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (standard != nothing && standard != kept) dup3(nothing, standard, 0);
  }
  if (nothing > STDERR_FILENO) close(nothing);
}

// Has the copy die with `program`, its parent.
inline void DieWith(pid_t program) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != program) _exit(EXIT_FAILURE);  // it died before the line above
}

}  // namespace trabex
