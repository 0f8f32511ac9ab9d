// Addresses as the system reads and writes them, for a second opinion about those of base/ip_address.h.
#pragma once

#include <optional>
#include <string>

#include "base/ip_address.h"

namespace trabex {

// The bytes of the address that the system reads in the whole text; those of an IPv4 address come first.
std::optional<IPAddress::IPv6Bytes> SystemReadsAddress(AddressFamily family, const std::string& text);

std::string SystemWritesIPv6(const IPAddress::IPv6Bytes& bytes);

}  // namespace trabex
