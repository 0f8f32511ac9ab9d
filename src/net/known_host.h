// Addresses of hosts as far as they are known without asking DNS.
#pragma once

#include <string_view>

#include "base/ip_address.h"
#include "resolver/name_lookup.h"

namespace trabex {

struct HostAddress {
  int error = 0;  // a socket error number; the rest counts when it is 0
  IPAddress address;
};

// The address of `host` without asking anybody: an address of either family, or a name in the machine's own
// table. An empty text gives 10047, an unknown name 11001.
HostAddress LookUpKnownHost(NameLookup& names, std::string_view host);

}  // namespace trabex
