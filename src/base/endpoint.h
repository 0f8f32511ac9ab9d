// One end of a connection.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

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

// The endpoint that `text` is, written as FormatEndpoint writes it, with a port from 1 to 65535 in at most
// five digits. Nothing for anything else; a name is none.
std::optional<Endpoint> ParseEndpoint(std::string_view text);

}  // namespace trabex
