#include "platform/message.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <iostream>

namespace trabex {

void ShowMessage(std::string_view text) {
  // Opened anew, because O_NONBLOCK would hold for every process that shares the descriptor. A socket cannot
  // be opened so.
  const int own = open("/proc/self/fd/2", O_WRONLY | O_NOCTTY | O_NONBLOCK | O_APPEND | O_CLOEXEC);
  if (own >= 0) {
    [[maybe_unused]] const ssize_t written = write(own, text.data(), text.size());
    close(own);
    return;
  }
  pollfd writable{STDERR_FILENO, POLLOUT, 0};
  if (poll(&writable, 1, 0) == 1 && writable.revents == POLLOUT) {
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
  }
}

bool MessagesGoToTerminal() {
  return isatty(STDERR_FILENO) == 1;
}

struct CommandStreams::State {};

CommandStreams::CommandStreams() = default;

CommandStreams::~CommandStreams() = default;

std::ostream& CommandStreams::Out() {
  return std::cout;
}

std::ostream& CommandStreams::Err() {
  return std::cerr;
}

void CommandStreams::Show() {
  std::cout.flush();
}

}  // namespace trabex
