#include "platform/standard_output.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace trabex {

namespace {

// O_NONBLOCK would hold for every process that shares the descriptor. A pipe or a terminal that is said to be
// writable takes so much without waiting.
constexpr std::size_t kTakenAtOnce = PIPE_BUF;

bool IsWritableNow() {
  pollfd output{STDOUT_FILENO, POLLOUT, 0};
  return poll(&output, 1, 0) == 1 && output.revents == POLLOUT;
}

ssize_t WriteSome(std::string_view text, mode_t type) {
  if (S_ISREG(type)) return write(STDOUT_FILENO, text.data(), text.size());
  if (S_ISSOCK(type)) return send(STDOUT_FILENO, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (!IsWritableNow()) return -1;
  return write(STDOUT_FILENO, text.data(), std::min(text.size(), kTakenAtOnce));
}

}  // namespace

std::size_t WriteStandardOutput(std::string_view text) {
  struct stat status {};
  if (fstat(STDOUT_FILENO, &status) != 0) return 0;
  std::size_t total = 0;
  while (total < text.size()) {
    errno = 0;
    const ssize_t written = WriteSome(text.substr(total), status.st_mode);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) break;
    total += static_cast<std::size_t>(written);
  }
  return total;
}

}  // namespace trabex
