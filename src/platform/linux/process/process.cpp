#include "platform/process.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <csignal>

#include "platform/linux/process/signals.h"

namespace trabex {

const bool kTokensKeepQuotes = false;

std::vector<std::string> CommandLineTokens(int argc, char* const* argv) {
  return std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc);
}

void PrepareStreamsAndRequests() {
  // The lowest free number is given out, so this goes through 0, 1 and 2 at most.
  int descriptor = open("/dev/null", O_RDWR);
  while (descriptor >= 0 && descriptor <= STDERR_FILENO) descriptor = dup(descriptor);
  if (descriptor >= 0) close(descriptor);

  for (const int number : kStopSignals) signal(number, SIG_IGN);
  for (const int number : kSignalsWithoutMeaning) signal(number, SIG_IGN);
  const sigset_t waiting = RequestSignals();
  pthread_sigmask(SIG_BLOCK, &waiting, nullptr);
}

void LetRequestsEndProcess() {
  const sigset_t waiting = RequestSignals();
  pthread_sigmask(SIG_UNBLOCK, &waiting, nullptr);
}

}  // namespace trabex
