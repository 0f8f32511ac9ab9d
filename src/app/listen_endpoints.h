// Where the program listens by its settings, and whether a server is to be found there.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/ip_address.h"
#include "config/configuration.h"

namespace trabex {

struct ListenEndpoint {
  // As people read it, without brackets: an IPv4 address as it is written in the settings, an IPv6 address in
  // its shortest form. What it is bound to.
  std::string host;
  IPAddress address;  // none when `host` is no address, which the pattern of the setting allows: 300.1.1.1
  std::int32_t port = 0;
  bool tls = false;  // whether TLS begins with the first byte
};

// Each address of BindIP, in its order, first with BindPort, then with BindPortTLS if there is one. An empty
// BindIP is all addresses of IPv4.
std::vector<ListenEndpoint> ListenEndpoints(const Configuration& configuration);

// "192.0.2.1:25", "[2001:db8::1]:25". `host` may be a name too.
std::string FormatHostAndPort(std::string_view host, std::int32_t port);
// "0.0.0.0:25, 0.0.0.0:465 (TLS)".
std::string FormatEndpoints(const std::vector<ListenEndpoint>& endpoints);
// The server of the settings in the same form.
std::string FormatServer(const Configuration& configuration);

// Whether a connection to one of the server's addresses would come back to `bound`, given that the ports are
// equal: it is the same address, or stands for any of this machine (the system takes it for loopback), or
// `bound` is all addresses of a family and it is one of these. `own` are the machine's addresses; they are
// not used unless `bound` is one that stands for all. Raises 380 when `bound` has no address.
bool LoopsBack(const ListenEndpoint& bound, const std::vector<IPAddress>& server,
               const std::vector<IPAddress>& own);

}  // namespace trabex
