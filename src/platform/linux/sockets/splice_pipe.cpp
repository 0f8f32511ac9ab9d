#include "platform/splice_pipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace trabex {

std::unique_ptr<SplicePipe> SplicePipe::Open() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) return nullptr;
  std::unique_ptr<SplicePipe> pipe(new SplicePipe(ends[0], ends[1]));
  if (fcntl(ends[1], F_SETPIPE_SZ, static_cast<int>(kCapacity)) < 0) return nullptr;
  return pipe;
}

SplicePipe::~SplicePipe() {
  close(read_end_);
  close(write_end_);
}

std::string SplicePipe::TakeAll() {
  std::string bytes(size_, '\0');
  std::size_t taken = 0;
  while (taken < bytes.size()) {
    const ssize_t count = read(read_end_, bytes.data() + taken, bytes.size() - taken);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    taken += static_cast<std::size_t>(count);
  }
  bytes.resize(taken);
  size_ = 0;
  return bytes;
}

}  // namespace trabex
