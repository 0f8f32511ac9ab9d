// The system's socket calls as the files of sockets.h use them.
#pragma once

#include "platform/windows/win.h"

namespace trabex {

// Without it any program could bind to the same endpoint and take the callers.
inline constexpr int kExclusiveBind = SO_EXCLUSIVEADDRUSE;
inline constexpr int kMaxBacklog = SOMAXCONN;

// The error number of a call that returned `result`: 0 unless that is an error.
inline int Outcome(int result) {
  return result == SOCKET_ERROR ? WSAGetLastError() : 0;
}

inline int SetOption(SOCKET socket, int level, int option, int value = 1) {
  return Outcome(setsockopt(socket, level, option, reinterpret_cast<const char*>(&value), sizeof value));
}

inline int GetOption(SOCKET socket, int level, int option, int& value) {
  int size = sizeof value;
  return Outcome(getsockopt(socket, level, option, reinterpret_cast<char*>(&value), &size));
}

}  // namespace trabex
