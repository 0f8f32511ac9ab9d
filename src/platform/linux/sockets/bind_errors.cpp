#include "platform/bind_errors.h"

#include "platform/sockets.h"

namespace trabex {

bool MayBeTaken(int error) {
  return error == socket_error::kAddressInUse;
}

}  // namespace trabex
