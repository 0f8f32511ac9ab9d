// Distinguishes a send that is stuck from one that waits for a slow peer.
//
// A peer that does not read fills its own system's buffer, then ours, and then what SendData was given waits
// here, for ever unless the owner ends it: the peer's system goes on answering, so TCP never gives up. Two
// things are progress: our system takes more bytes, or the peer's system acknowledges some. The latter shows
// a slow peer long before there is room for the former, since megabytes may wait in between. An answer to a
// window probe is no progress: it says only that the peer's system runs.
//
// What its program reads shows when its system announces the room, and that waits for half of its buffer, or
// for a segment (RFC 1122, 4.2.3.3). So a slow line is seen byte by byte, but of a program that reads a full
// buffer slowly nothing can be seen for as long as it takes to make that room.
//
// It costs nothing while nothing waits: the owner of the socket calls Look now and then.
#pragma once

#include <cstdint>
#include <optional>

#include "net/CSocketMaster.h"
#include "platform/event_loop.h"

namespace trabex {

class SendStall {
 public:
  // The most time that may pass without progress.
  static constexpr Milliseconds kMaxStall{300000};

  // Checks what the socket has to send, at the time `now`, which never goes back. True when it has made no
  // progress for kMaxStall, counted from the look that saw the last.
  bool Look(const CSocketMaster& socket, MonotonicTime now);
  // The same for a send of which `progress` is what CSocketMaster::SendProgressMade gives; nothing when none
  // waits.
  bool Look(std::optional<std::int64_t> progress, MonotonicTime now);

 private:
  std::optional<std::int64_t> progress_;  // of the last look
  MonotonicTime since_{};                 // the look that saw it first
};

}  // namespace trabex
