// The system's socket calls as the files of sockets.h use them.
#pragma once

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <limits>

#include "platform/linux/sockets/socket_errno.h"

namespace trabex {

// On this system the option passes over connections of an earlier process that are still in TIME_WAIT, and no more:
// while another socket listens on the endpoint, binding to it fails as without it.
inline constexpr int kExclusiveBind = SO_REUSEADDR;
inline constexpr int kMaxBacklog = std::numeric_limits<int>::max();  // the kernel cuts it to its own

// Our error number for a call that returned `result`: 0 unless that is negative.
inline int Outcome(long result) {
  return result < 0 ? SocketErrorOfErrno(errno) : 0;
}

inline int SetOption(int descriptor, int level, int option, int value = 1) {
  return Outcome(setsockopt(descriptor, level, option, &value, sizeof value));
}

inline int GetOption(int descriptor, int level, int option, int& value) {
  socklen_t size = sizeof value;
  return Outcome(getsockopt(descriptor, level, option, &value, &size));
}

}  // namespace trabex
