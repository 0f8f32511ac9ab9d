// An address as the system's calls take and give it.
#pragma once

#if __has_include(<netinet/in.h>)
#include <netinet/in.h>
#else
#include "platform/windows/win.h"
#endif

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>

#include "base/endpoint.h"
#include "base/ip_address.h"

namespace trabex {

class SystemAddress {
 public:
  // For a call that gives one.
  SystemAddress() = default;
  explicit SystemAddress(const Endpoint& endpoint) {
    const auto bytes = endpoint.address.Bytes();
    if (endpoint.address.IsIPv6()) {
      ipv6_.sin6_family = AF_INET6;
      ipv6_.sin6_port = htons(endpoint.port);
      std::copy(bytes.begin(), bytes.end(), std::begin(ipv6_.sin6_addr.s6_addr));
      size_ = sizeof ipv6_;
    } else {
      ipv4_.sin_family = AF_INET;
      ipv4_.sin_port = htons(endpoint.port);
      ipv4_.sin_addr.s_addr = htonl(endpoint.address.Number());
      size_ = sizeof ipv4_;
    }
  }
  // `address` is of one of our families.
  explicit SystemAddress(const sockaddr& address) {
    size_ = address.sa_family == AF_INET6 ? sizeof ipv6_ : sizeof ipv4_;
    std::memcpy(&ipv6_, &address, static_cast<std::size_t>(size_));
  }

  sockaddr* Get() { return &any_; }
  socklen_t Size() const { return size_; }
  socklen_t* SizePlace() { return &size_; }
  // The one place where an address of the system becomes one of ours; IPAddress makes an IPv4 address of one
  // that is mapped into IPv6.
  Endpoint ToEndpoint() const {
    if (any_.sa_family == AF_INET) {
      return {IPAddress::IPv4(ntohl(ipv4_.sin_addr.s_addr)), ntohs(ipv4_.sin_port)};
    }
    if (any_.sa_family != AF_INET6) return {};
    IPAddress::IPv6Bytes bytes;
    std::copy(std::begin(ipv6_.sin6_addr.s6_addr), std::end(ipv6_.sin6_addr.s6_addr), bytes.begin());
    return {IPAddress::IPv6(bytes), ntohs(ipv6_.sin6_port)};
  }

 private:
  union {
    sockaddr_in6 ipv6_{};  // the largest
    sockaddr_in ipv4_;
    sockaddr any_;
  };
  socklen_t size_ = sizeof ipv6_;
};

}  // namespace trabex
