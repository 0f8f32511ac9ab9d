// Addresses in the abstract namespace of Unix sockets: a name there is free again the moment the last socket with
// it is closed, and nothing is left in a file system. Each type of socket has names of its own.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace trabex {

class AbstractAddress {
 public:
  // Of a longer name the first 107 bytes count.
  explicit AbstractAddress(std::string_view name) {
    address_.sun_family = AF_UNIX;
    // The NUL before the name is what makes it an abstract one.
    const std::size_t length = std::min(name.size(), sizeof address_.sun_path - 1);
    std::copy_n(name.data(), length, address_.sun_path + 1);
    length_ = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + length);
  }

  const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&address_); }
  socklen_t Length() const { return length_; }

 private:
  sockaddr_un address_{};
  socklen_t length_ = 0;
};

}  // namespace trabex
