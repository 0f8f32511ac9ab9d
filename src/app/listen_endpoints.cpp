#include "app/listen_endpoints.h"

#include <algorithm>

#include "app/own_address.h"
#include "base/text.h"
#include "match/ip_range.h"

namespace trabex {

namespace {

// Also in brackets where it is one of IPv6.
std::string InBrackets(std::string_view host) {
  std::string text(host);
  return host.find(':') == std::string_view::npos ? text : "[" + text + "]";
}

// An IPv6 address in its shortest form; anything else as it is.
std::string ShortForm(std::string_view host) {
  const bool may_be_ipv6 = host.find(':') != std::string_view::npos;
  const auto address = may_be_ipv6 ? ParseIPAddress(host) : std::nullopt;
  return address ? FormatIPAddress(*address) : std::string(host);
}

void AddEndpoints(const Configuration& configuration, std::int32_t port, bool tls,
                  std::vector<ListenEndpoint>& endpoints) {
  for (const std::string_view entry : Split(configuration.BindIP, ',')) {
    const std::string_view host = Trim(entry);
    const IPAddress address = ParseIPAddress(host).value_or(IPAddress());
    if (!host.empty()) endpoints.push_back({ShortForm(host), address, port, tls});
  }
  if (configuration.BindIP.empty()) endpoints.push_back({FormatIPAddress(kIPv4Any), kIPv4Any, port, tls});
}

}  // namespace

std::vector<ListenEndpoint> ListenEndpoints(const Configuration& configuration) {
  std::vector<ListenEndpoint> endpoints;
  AddEndpoints(configuration, configuration.BindPort, false, endpoints);
  if (configuration.BindPortTLS != 0) AddEndpoints(configuration, configuration.BindPortTLS, true, endpoints);
  return endpoints;
}

std::string FormatHostAndPort(std::string_view host, std::int32_t port) {
  return InBrackets(host) + ":" + std::to_string(port);
}

std::string FormatEndpoints(const std::vector<ListenEndpoint>& endpoints) {
  std::string text;
  for (const ListenEndpoint& endpoint : endpoints) {
    if (!text.empty()) text += ", ";
    text += FormatHostAndPort(endpoint.host, endpoint.port);
    if (endpoint.tls) text += " (TLS)";
  }
  return text;
}

std::string FormatServer(const Configuration& configuration) {
  return FormatHostAndPort(ShortForm(configuration.ServerIP), configuration.ServerPort);
}

bool LoopsBack(const ListenEndpoint& bound, const std::vector<IPAddress>& server,
               const std::vector<IPAddress>& own) {
  const IPAddress listens_on = bound.address.IsNone() ? mCommon::CLngIP(bound.host) : bound.address;
  return std::any_of(server.begin(), server.end(), [&](const IPAddress& address) {
    if (FamilyOf(address) != FamilyOf(listens_on)) return false;
    if (address.IsUnspecified() || address == listens_on) return true;
    return listens_on.IsUnspecified() && mCommon::IsOwnAddress(address, own);
  });
}

}  // namespace trabex
