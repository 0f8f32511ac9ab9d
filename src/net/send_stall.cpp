#include "net/send_stall.h"

namespace trabex {

bool SendStall::Look(const CSocketMaster& socket, MonotonicTime now) {
  return Look(socket.PendingBytes() > 0 ? std::optional(socket.SendProgressMade()) : std::nullopt, now);
}

bool SendStall::Look(std::optional<std::int64_t> progress, MonotonicTime now) {
  if (!progress || progress != progress_) {
    progress_ = progress;
    since_ = now;
    return false;
  }
  return now - since_ >= kMaxStall;
}

}  // namespace trabex
