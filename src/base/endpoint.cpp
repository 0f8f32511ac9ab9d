#include "base/endpoint.h"

namespace trabex {

std::string FormatEndpoint(const Endpoint& endpoint) {
  const std::string address = FormatIPAddress(endpoint.address);
  const std::string port = ":" + std::to_string(endpoint.port);
  return endpoint.address.IsIPv6() ? "[" + address + "]" + port : address + port;
}

}  // namespace trabex
