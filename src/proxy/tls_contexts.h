// The TLS contexts that sessions begin TLS with.
#pragma once

#include <memory>

#include "tls/tls_context.h"

namespace trabex {

// Its owner replaces them whenever certificates or settings change; what has begun goes on with what it began
// with.
struct TlsContexts {
  std::shared_ptr<const TlsContext> for_clients;  // nullptr: no certificate is loaded
  std::shared_ptr<const TlsContext> for_server;   // nullptr: the settings want no TLS with the server
};

}  // namespace trabex
