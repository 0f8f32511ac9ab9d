// Addresses as the system reads and writes them, for a second opinion about those of base/ip_address.h.
#pragma once

#include <arpa/inet.h>

#include <optional>
#include <string>

#include "base/ip_address.h"

namespace trabex {

// The bytes of the address that the system reads in the whole text; those of an IPv4 address come first.
inline std::optional<IPAddress::IPv6Bytes> SystemReadsAddress(AddressFamily family, const std::string& text) {
  IPAddress::IPv6Bytes bytes{};
  // The system would read up to a zero byte.
  if (text.find('\0') != std::string::npos) return std::nullopt;
  if (inet_pton(family == AddressFamily::kIPv6 ? AF_INET6 : AF_INET, text.c_str(), bytes.data()) != 1) {
    return std::nullopt;
  }
  return bytes;
}

inline std::string SystemWritesIPv6(const IPAddress::IPv6Bytes& bytes) {
  char text[INET6_ADDRSTRLEN];
  return inet_ntop(AF_INET6, bytes.data(), text, sizeof text);
}

}  // namespace trabex
