#include "app/loop_test.h"

#include "net/socket_errors.h"

namespace trabex {

namespace {

bool IsServer(const ListenEndpoint& endpoint, Sockets& sockets, const AddressAnswer& server) {
  constexpr const char* kSource = "frmMain.StartListening";
  if (server.error != 0) throw Error(server.error, kSource, std::string(SocketErrorText(server.error)));
  std::vector<IPAddress> own;
  if (endpoint.address.IsUnspecified()) {
    const int error = sockets.LocalAddresses(own);
    if (error != 0) throw Error(error, kSource, std::string(SocketErrorText(error)));
  }
  return LoopsBack(endpoint, server.addresses, own);
}

}  // namespace

std::vector<ListenEndpoint> EndpointsAtServerPort(const Configuration& configuration) {
  std::vector<ListenEndpoint> endpoints = ListenEndpoints(configuration);
  std::erase_if(endpoints,
                [&](const ListenEndpoint& endpoint) { return endpoint.port != configuration.ServerPort; });
  return endpoints;
}

std::optional<std::string> WhyNoListening(const Configuration& configuration, Sockets& sockets,
                                          const AddressAnswer& server) {
  for (const ListenEndpoint& endpoint : EndpointsAtServerPort(configuration)) {
    try {
      if (!IsServer(endpoint, sockets, server)) continue;
      return "Loop detected: Server IP address and port point to listening address and port.";
    } catch (const Error& error) {
      return ListenErrorText(endpoint, error);
    }
  }
  return std::nullopt;
}

std::string ListenErrorText(const ListenEndpoint& endpoint, const Error& error) {
  return "Error " + std::to_string(error.Number()) + " binding to " +
         FormatHostAndPort(endpoint.host, endpoint.port) + ". " + error.Description();
}

}  // namespace trabex
