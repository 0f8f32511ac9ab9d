// How a session begins with the server, by the settings: the header of the PROXY protocol, and the preface.
#pragma once

#include <string>

#include "config/configuration.h"
#include "proxy/dialogue/proxy_header.h"
#include "proxy/dialogue/server_preface.h"

namespace trabex {

// Whose connection the server is to serve.
struct ClientOrigin {
  ProxiedConnection connection;
  // A balancer has spoken for itself, or could not say for whom: the connection is its own.
  bool is_balancers_own = false;
  const ProxiedTls* tls = nullptr;  // of a client whose first byte was one of TLS
};

struct ServerApproach {
  std::string header;         // the first bytes for the server; "" for none
  std::string logged_header;  // as a line of the log
  ServerPrefacePlan preface;
};

// Whether anything comes before the greeting that the client gets.
bool NeedsApproach(const Configuration& configuration);
ServerApproach PlanApproach(const Configuration& configuration, const ClientOrigin& origin);

}  // namespace trabex
