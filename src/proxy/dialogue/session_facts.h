// What a dialogue may know of its session beyond the protocol.
#pragma once

#include <cstdint>
#include <string>

#include "base/ip_address.h"

namespace trabex {

class SessionFacts {
 public:
  virtual ~SessionFacts() = default;
  // The empty address once the connection to the client is closed.
  virtual IPAddress ClientIP() const = 0;
  // Whether the client's address lies in LocalIPs.
  virtual bool IsLocalClient() const = 0;
  // The client's name from DNS; "" when it has none. Known before the first command line is filtered.
  virtual std::string ClientHostName() const = 0;
  std::string ClientHostNameOrUnknown() const {
    std::string name = ClientHostName();
    return name.empty() ? "Unknown" : name;
  }
  // Octets that the client's connection has taken so far.
  virtual std::int64_t BytesSent() const = 0;
};

}  // namespace trabex
