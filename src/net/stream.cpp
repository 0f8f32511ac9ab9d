#include "net/stream.h"

#include "net/socket_errors.h"

namespace trabex {

std::string Stream::ErrorText(int number) const {
  return std::string(SocketErrorText(number));
}

std::size_t PlainStream::Pending(SocketHandle socket) {
  std::size_t bytes = 0;
  sockets_.Available(socket, bytes);
  return bytes;
}

}  // namespace trabex
