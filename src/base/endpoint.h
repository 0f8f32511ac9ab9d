// One end of a connection.
#pragma once

#include <cstdint>
#include <string>

#include "base/ip_address.h"

namespace trabex {

// An address and a port in host order. A plain value.
struct Endpoint {
  IPAddress address;
  std::uint16_t port = 0;
  friend bool operator==(const Endpoint&, const Endpoint&) = default;
};

// "192.0.2.1:25", "[2001:db8::1]:25".
std::string FormatEndpoint(const Endpoint& endpoint);

}  // namespace trabex
