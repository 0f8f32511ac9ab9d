#include "platform/bind_errors.h"

#include "platform/sockets.h"
#include "platform/windows/win.h"

namespace trabex {

// The system says "denied" where an exclusive socket has all addresses and one of them is asked for.
bool MayBeTaken(int error) {
  return error == socket_error::kAddressInUse || error == WSAEACCES;
}

}  // namespace trabex
