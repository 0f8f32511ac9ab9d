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

 private:
  ServiceSettings() = default;
  friend struct Configuration;
};

}  // namespace trabex
