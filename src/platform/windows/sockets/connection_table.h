// What the system's table of connections says of ours.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "base/endpoint.h"

namespace trabex {

// For those whose end no message has told of: one may have been dropped, and a system may send none while data lies
// unread. The table is read when it is asked for and is older than kMaxAge, since it has all connections of the machine.
class ConnectionTable {
 public:
  static constexpr std::chrono::milliseconds kMaxAge{250};

  // Whether the peer has ended or broken the connection, by now or kMaxAge ago. False also when the system does not say.
  bool HasPeerEnded(const Endpoint& local, const Endpoint& remote);

 private:
  struct Row {
    std::uint32_t ports = 0;  // both, by which the rows are in order
    Endpoint local;
    Endpoint remote;
  };
  static std::uint32_t Ports(const Endpoint& local, const Endpoint& remote) {
    return std::uint32_t{local.port} << 16 | remote.port;
  }
  void Read();
  // These return whether the system has told all of a family.
  bool AddIPv4();
  bool AddIPv6();
  void Add(std::uint32_t state, const Endpoint& local, const Endpoint& remote);

  std::optional<std::chrono::steady_clock::time_point> read_;
  std::vector<Row> open_;  // the connections that the peer has not ended
  bool has_ipv4_ = false;
  bool has_ipv6_ = false;
};

}  // namespace trabex
