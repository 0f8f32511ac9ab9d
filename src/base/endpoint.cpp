#include "base/endpoint.h"

#include <algorithm>
#include <charconv>

#include "base/text.h"

namespace trabex {

namespace {

// 0 when `text` is no port.
std::uint16_t ParsePort(std::string_view text) {
  constexpr std::size_t kMaxDigits = 5;
  std::uint16_t port = 0;
  if (text.size() > kMaxDigits || !std::all_of(text.begin(), text.end(), IsDigit)) return 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), port);
  return result.ec == std::errc() ? port : 0;
}

}  // namespace

std::string FormatEndpoint(const Endpoint& endpoint) {
  const std::string address = FormatIPAddress(endpoint.address);
  const std::string port = ":" + std::to_string(endpoint.port);
  return endpoint.address.IsIPv6() ? "[" + address + "]" + port : address + port;
}

std::optional<Endpoint> ParseEndpoint(std::string_view text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string_view::npos) return std::nullopt;
  const std::uint16_t port = ParsePort(text.substr(colon + 1));
  std::string_view host = text.substr(0, colon);
  const bool is_ipv6 = host.find(':') != std::string_view::npos;
  if (is_ipv6) {
    if (!host.starts_with('[') || !host.ends_with(']')) return std::nullopt;
    host = host.substr(1, host.size() - 2);
  }
  const std::optional<IPAddress> address = ParseIPAddress(host);
  if (!address || port == 0) return std::nullopt;
  return Endpoint{*address, port};
}

}  // namespace trabex
