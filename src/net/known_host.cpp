#include "net/known_host.h"

#include "platform/sockets.h"

namespace trabex {

HostAddress LookUpKnownHost(NameLookup& names, std::string_view host) {
  if (host.empty()) return {socket_error::kAddressFamily, {}};
  const auto address = names.ResolveLocally(host);
  if (!address) return {socket_error::kHostNotFound, {}};
  return {0, *address};
}

}  // namespace trabex
