#include "net/stream.h"

namespace trabex {

std::size_t PlainStream::Pending(SocketHandle socket) {
  std::size_t bytes = 0;
  sockets_.Available(socket, bytes);
  return bytes;
}

}  // namespace trabex
