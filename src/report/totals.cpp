#include "report/totals.h"

#include "proxy/cProxy.h"

namespace trabex {

OpenByteCounts OpenBytes(SessionCollection& sessions) {
  OpenByteCounts bytes{};
  for (std::size_t i = 0; i < sessions.Count(); ++i) {
    const cProxy& session = sessions.At(i);
    const TransferredBytes of_sides[] = {session.ClientBytes(), session.ServerBytes()};
    for (std::size_t side = 0; side < bytes.size(); ++side) {
      bytes[side][0] += static_cast<std::uint64_t>(of_sides[side].in);
      bytes[side][1] += static_cast<std::uint64_t>(of_sides[side].out);
    }
  }
  return bytes;
}

Totals TotalsOf(const Counters& counters, const SessionReport& report, SessionCollection& sessions) {
  return TotalsOf(counters, report, sessions.Count(), OpenBytes(sessions));
}

Totals TotalsOf(const Counters& counters, const SessionReport& report, std::size_t open,
                const OpenByteCounts& open_bytes) {
  Totals totals;
  totals.open = open;
  totals.peak = counters.sessions_peak;
  for (std::size_t origin = 0; origin < 2; ++origin) {
    totals.sessions += counters.sessions[origin];
    totals.accepted += counters.recipients[origin][static_cast<std::size_t>(RecipientResult::kAccepted)];
    totals.messages += counters.messages[origin];
  }
  totals.delayed = report.Refusals().DelayedCount();
  totals.refused = report.Refusals().Count() - totals.delayed;
  totals.bytes = open_bytes;
  for (std::size_t side = 0; side < 2; ++side) {
    for (std::size_t way = 0; way < 2; ++way) totals.bytes[side][way] += counters.bytes[side][way];
  }
  totals.server_failure = report.ServerFailure();
  if (!totals.server_failure.empty()) {
    totals.server = ServerState::kDown;
  } else if (counters.server_connect_time.Count() != 0) {
    totals.server = ServerState::kUp;
  }
  return totals;
}

}  // namespace trabex
