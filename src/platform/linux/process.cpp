#include "platform/process.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <initializer_list>

namespace trabex {

void PrepareProcess() {
  // The lowest free number is given out, so this goes through 0, 1 and 2 at most.
  int descriptor = open("/dev/null", O_RDWR);
  while (descriptor >= 0 && descriptor <= STDERR_FILENO) descriptor = dup(descriptor);
  if (descriptor >= 0) close(descriptor);

  // A terminal must not stop the service, whether a window is shown on it or not.
  for (const int number : {SIGTSTP, SIGTTIN, SIGTTOU}) signal(number, SIG_IGN);

  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, number);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace trabex
