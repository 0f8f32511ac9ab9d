// The header of the PROXY protocol, versions 1 and 2, with which a load balancer says whose connection it
// hands on: read from a balancer in front, written for the server behind.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/endpoint.h"

namespace trabex {

// Whose connection it is, and what address it called; both of one family.
struct ProxiedConnection {
  Endpoint client;
  Endpoint called;
  friend bool operator==(const ProxiedConnection&, const ProxiedConnection&) = default;
};

struct ProxyHeader {
  enum class State {
    kIncomplete,  // the bytes may be the beginning of a header
    kBad,         // no header begins so
    kWhole,
  };
  State state = State::kIncomplete;
  std::size_t size = 0;  // of a whole one; the bytes after it are the client's
  // Nothing when the header names no client: the balancer speaks for itself, or cannot say for whom.
  std::optional<ProxiedConnection> connection;
};

// No header that is taken is longer.
inline constexpr std::size_t kMaxProxyHeader = 4096;

// Reads the header that `bytes` begin with. It is bad at the first byte that no header of either version can
// have there. An IPv4 address that is written as an IPv6 one is that IPv4 address.
//
// Version 1 is one line of at most 107 bytes with its CR LF: "PROXY", "TCP4" or "TCP6", two addresses of that
// family and two decimal ports, single blanks between and no leading zeros, or "PROXY UNKNOWN" and anything.
// Version 2 is binary: a stream over IPv4 or IPv6, or no client; what follows the addresses is ignored.
ProxyHeader ParseProxyHeader(std::string_view bytes);

// What a header of version 2 says of the client's TLS (PP2_TYPE_SSL).
struct ProxiedTls {
  std::string_view version;  // "TLSv1.3"
  std::string_view cipher;
  bool has_certificate = false;
  bool verified = false;       // only where has_certificate
  std::string_view peer_name;  // the certificate's common name
};

// Version 1, with CR LF.
std::string FormatProxyLine(const ProxiedConnection& connection);
// Version 2. At most 232 bytes, which is as much as any server takes: what of `tls` (nullptr: none) is too
// long for that is left out. A common name is said of a verified certificate only.
std::string FormatProxyHeader(const ProxiedConnection& connection, const ProxiedTls* tls);
// Version 2 for a connection of our own, without a client.
std::string FormatLocalProxyHeader();

}  // namespace trabex
