// Section Service: what the program does beside passing mail on.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/endpoint.h"

namespace trabex {

struct Configuration;

// DnsFailure: what a look-up of a client's name that failed for now (no answer, SERVFAIL) means.
namespace dns_failure {
inline constexpr std::int32_t kNoName = 0;   // that the client has no name
inline constexpr std::int32_t kUnknown = 1;  // that its name is not known
}  // namespace dns_failure

// Sandbox: whether the process gives up what it has no use for.
namespace sandbox {
inline constexpr std::int32_t kNone = 0;
inline constexpr std::int32_t kAsFarAsPossible = 1;
inline constexpr std::int32_t kRequired = 2;  // otherwise it does not start
}  // namespace sandbox

// JsonLog that stands for standard output.
inline constexpr const char* kStandardOutput = "-";

struct ServiceSettings {
  std::int32_t ServerTimeout;  // seconds; 0: none
  // Resolved path, kStandardOutput, or empty: none.
  std::string JsonLog;
  std::vector<std::string> JsonEvents;  // each once, in lower case; empty: the usual ones
  std::string StatusHTTP;               // as it was read; empty: none
  Endpoint status_endpoint;             // what StatusHTTP is; port 0: none
  std::int32_t DnsFailure;              // dns_failure
  bool EnforceMaxSize;
  std::int32_t Sandbox;  // sandbox

 private:
  ServiceSettings() = default;
  friend struct Configuration;
};

}  // namespace trabex
