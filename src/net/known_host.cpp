#include "net/known_host.h"

#include "platform/dotted_address.h"
#include "platform/sockets.h"

namespace trabex {

HostAddress LookUpKnownHost(NameLookup& names, std::string_view host) {
  if (host.empty()) return {socket_error::kAddressFamily, 0, {}};
  const auto address = names.ResolveLocally(host);
  if (!address) return {socket_error::kHostNotFound, 0, {}};
  return {0, *address, DottedAddress(*address)};
}

}  // namespace trabex
