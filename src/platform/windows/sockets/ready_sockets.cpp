#include "platform/windows/sockets/ready_sockets.h"

#include <algorithm>

namespace trabex {

void ReadySockets::Add(SOCKET socket) {
  sockets_[count_++] = socket;
}

void ReadySockets::Ask() {
  readable_.fd_count = static_cast<u_int>(count_);
  std::copy_n(sockets_.begin(), count_, readable_.fd_array);
  writable_ = readable_;
  failed_ = readable_;
  timeval at_once{};
  if (count_ == 0 || select(0, &readable_, &writable_, &failed_, &at_once) == SOCKET_ERROR) {
    readable_.fd_count = writable_.fd_count = failed_.fd_count = 0;
  }
}

FdReadiness AskReadiness(SOCKET socket) {
  ReadySockets asked;
  asked.Add(socket);
  asked.Ask();
  const bool failed = asked.HasFailed(socket);
  return {asked.IsReadable(socket) || failed, asked.IsWritable(socket) || failed};
}

}  // namespace trabex
