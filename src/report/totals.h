// What the whole program has come to, in a few numbers.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "proxy/session_collection.h"
#include "report/counters.h"
#include "report/session_report.h"

namespace trabex {

enum class ServerState : std::uint8_t {
  kUnknown,  // no session has needed it yet
  kUp,
  kDown,  // the latest attempt to reach it failed
};

struct Totals {
  std::size_t open = 0;                  // sessions
  std::uint64_t peak = 0;                // the most that were open at a time
  std::uint64_t sessions = 0;            // all since the start
  std::uint64_t accepted = 0;            // recipients that the server has accepted
  std::uint64_t refused = 0;             // replies of the proxy that refuse, without those of greylisting
  std::uint64_t delayed = 0;             // replies of greylisting
  std::uint64_t messages = 0;            // that the server has taken
  std::array<CountArray<2>, 2> bytes{};  // of all connections: client, server; in, out
  ServerState server = ServerState::kUnknown;
  std::string_view server_failure;  // why it is down; valid until the next attempt
};

// As Counters::bytes, of the connections that are open.
using OpenByteCounts = std::array<CountArray<2>, 2>;
// Takes a step for each session.
OpenByteCounts OpenBytes(SessionCollection& sessions);

// With so many sessions open, and the bytes that they have come to.
Totals TotalsOf(const Counters& counters, const SessionReport& report, std::size_t open,
                const OpenByteCounts& open_bytes);
// Takes a step for each session.
Totals TotalsOf(const Counters& counters, const SessionReport& report, SessionCollection& sessions);

}  // namespace trabex
