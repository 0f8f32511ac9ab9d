// What the system says of sockets that are asked, without waiting.
#pragma once

#include <array>
#include <cstddef>

#include "platform/event_loop.h"
#include "platform/windows/win.h"

namespace trabex {

// As many sockets as the system is asked about in one call.
class ReadySockets {
 public:
  static constexpr std::size_t kMax = FD_SETSIZE;

  bool IsFull() const { return count_ == kMax; }
  bool IsEmpty() const { return count_ == 0; }
  // Adds one; there is room.
  void Add(SOCKET socket);
  // Asks about all that were added.
  void Ask();

  // What was found; only after Ask. A socket is readable when data, a connection or the end is there to be received.
  bool IsReadable(SOCKET socket) const { return FD_ISSET(socket, &readable_) != 0; }
  bool IsWritable(SOCKET socket) const { return FD_ISSET(socket, &writable_) != 0; }
  // Its connect has failed.
  bool HasFailed(SOCKET socket) const { return FD_ISSET(socket, &failed_) != 0; }

 private:
  std::array<SOCKET, kMax> sockets_{};
  std::size_t count_ = 0;
  fd_set readable_{};
  fd_set writable_{};
  fd_set failed_{};
};

// Of one socket; one whose connect has failed is ready for both.
FdReadiness AskReadiness(SOCKET socket);

}  // namespace trabex
