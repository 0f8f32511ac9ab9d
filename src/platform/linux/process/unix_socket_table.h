// The kernel's table of Unix sockets.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string_view>

namespace trabex {

// The user of the process that made the datagram socket with this name in the abstract namespace, without the
// NUL before it. Unlike a peer's credentials, it is known also of a socket that does not listen. Nothing when
// there is no such socket, or when the kernel does not say (Linux before 5.3).
std::optional<uid_t> OwnerOfDatagramSocket(std::string_view abstract_name);

}  // namespace trabex
