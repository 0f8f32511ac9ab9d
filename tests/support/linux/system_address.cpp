#include "support/system_address.h"

#include <arpa/inet.h>

namespace trabex {

std::optional<IPAddress::IPv6Bytes> SystemReadsAddress(AddressFamily family, const std::string& text) {
  IPAddress::IPv6Bytes bytes{};
  // The system would read up to a zero byte.
  if (text.find('\0') != std::string::npos) return std::nullopt;
  if (inet_pton(family == AddressFamily::kIPv6 ? AF_INET6 : AF_INET, text.c_str(), bytes.data()) != 1) {
    return std::nullopt;
  }
  return bytes;
}

std::string SystemWritesIPv6(const IPAddress::IPv6Bytes& bytes) {
  char text[INET6_ADDRSTRLEN];
  return inet_ntop(AF_INET6, bytes.data(), text, sizeof text);
}

}  // namespace trabex
