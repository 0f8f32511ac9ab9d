// The key of a greylisting record: the client's network, the sender and the recipient.
#pragma once

#include <string>
#include <string_view>

#include "base/ip_address.h"

namespace trabex {

// The client's network, which mail servers of one sender often share: the /24 of IPv4 as "192.0.2", of IPv6
// the block of `ipv6_prefix` bits as "2001:db8::/64". With its colons it is never the text of the other.
std::string NetworkOf(const IPAddress& ip, int ipv6_prefix);

// "<network> <sender> <recipient>", in lower case. The blanks divide it, because an address holds
// none outside a quoted local part. Addresses with letters beyond ASCII are folded, so that no other spelling
// is another triple; keys without such letters are what they always were. The cut is never reached (a command
// line is far shorter); it is there because the database file cannot hold a longer key.
std::string TripleKey(std::string_view network, std::string_view sender, std::string_view recipient);

// The parts of a key. A key from a file may have any form; what is missing is empty then.
struct TripleParts {
  std::string_view network;
  std::string_view sender;
  std::string_view recipient;
};
TripleParts PartsOf(std::string_view key);

}  // namespace trabex
