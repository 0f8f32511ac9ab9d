// The test that the server is no listener of the program itself, in whose circle mail would go forever.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "app/listen_endpoints.h"
#include "base/error.h"
#include "config/configuration.h"
#include "platform/sockets.h"
#include "resolver/name_lookup.h"

namespace trabex {

// The listeners of these settings on the server's port: only these can be the server. Without any, its name
// need not be looked up.
std::vector<ListenEndpoint> EndpointsAtServerPort(const Configuration& configuration);

// What stands against these settings, given the addresses of their server; nothing when they pass.
std::optional<std::string> WhyNoListening(const Configuration& configuration, Sockets& sockets,
                                          const AddressAnswer& server);

// The line about an endpoint that cannot be listened on.
std::string ListenErrorText(const ListenEndpoint& endpoint, const Error& error);

}  // namespace trabex
