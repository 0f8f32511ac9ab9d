// What a dialogue may know of its session beyond the protocol.
#pragma once

#include <cstdint>
#include <string>

#include "base/ip_address.h"
#include "config/tls_settings.h"

namespace trabex {

// What TLS with a client has come to, as texts that hold visible ASCII only.
struct TlsTexts {
  std::string version;  // "TLSv1.3"
  std::string cipher;   // the name that IANA has for it
  std::string peer;     // the name in a client certificate that was verified; "" without one
};

class SessionFacts {
 public:
  virtual ~SessionFacts() = default;
  // The empty address once the connection to the client is closed.
  virtual IPAddress ClientIP() const = 0;
  // Whether the client's address lies in LocalIPs.
  virtual bool IsLocalClient() const = 0;
  // The client's name from DNS; "" when it has none. Known before the first command line is filtered.
  virtual std::string ClientHostName() const = 0;
  // Whether the client may have a name all the same: DNS has not answered, and DnsFailure says that this does
  // not count as having none. No list of names is about such a client.
  virtual bool ClientHostNameIsUnknown() const { return false; }
  std::string ClientHostNameOrUnknown() const {
    std::string name = ClientHostName();
    return name.empty() ? "Unknown" : name;
  }
  // Octets that the client's connection has taken so far.
  virtual std::int64_t BytesSent() const = 0;

  // Whether the settings name a certificate. Who must use TLS is decided by this, and not by whether one
  // could be loaded: a broken file must not open what TLS was to close.
  virtual bool TlsConfigured() const = 0;
  // Whether a certificate is loaded, so that TLS can begin.
  virtual bool TlsReady() const = 0;
  // Whether the client's connection is under TLS.
  virtual bool TlsActive() const = 0;
  // Empty while TlsActive is false.
  virtual TlsTexts TlsText() const = 0;
  // Whether the server's connection is under TLS.
  virtual bool ServerTlsActive() const = 0;
};

// Whether a requirement (bits of tls_require) holds for the client.
inline bool AppliesToClient(std::int32_t requirement, const SessionFacts& facts) {
  if (requirement == 0) return false;
  return (requirement & (facts.IsLocalClient() ? tls_require::kLocalClients : tls_require::kRemoteClients)) !=
         0;
}

}  // namespace trabex
