// The name that a peer goes by.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "base/ip_address.h"
#include "resolver/name_lookup.h"

namespace trabex {

struct PeerName {
  std::string name;  // "" when there is none that counts
  int error = 0;     // why there is none, one of 11001 to 11004
  // DNS did not say whether there is one that counts.
  bool failed = false;
};

// Asks for the name of `address`; `done` is called as NameLookup says. A name with anything but letters, digits,
// "-", "_" and "." counts as none, with `confirmed` also one that has not the address among its own.
LookupId FindPeerName(NameLookup& names, const IPAddress& address, bool confirmed,
                      std::function<void(const PeerName&)> done);

// Whether a host's name counts, which its owner may make of whatever he wants: one of plain characters.
bool IsPlainHostName(std::string_view name);

}  // namespace trabex
