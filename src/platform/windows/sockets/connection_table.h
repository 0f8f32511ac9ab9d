// What the system's table of connections says of ours.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "base/endpoint.h"

namespace trabex {

// For those whose end no receive can show: data lies unread before it. It has all connections of the machine, so it is
// read again only when that is little work beside the time that has passed since the last reading.
class ConnectionTable {
 public:
  static constexpr std::chrono::milliseconds kMaxAge{250};

  // Whether the peer has ended or broken the connection, by now or at most kMaxAge ago. False also when the system does
  // not say, and when there is no memory for what it says.
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
  std::chrono::steady_clock::duration age_limit_{};
  std::vector<Row> open_;  // the connections that the peer has not ended
  bool has_ipv4_ = false;
  bool has_ipv6_ = false;
};

}  // namespace trabex
