// What the views of the running program show: its own, and those of who looks on from elsewhere.
#pragma once

#include <array>
#include <optional>
#include <string>

#include "base/clock.h"
#include "proxy/session_collection.h"
#include "report/counters.h"
#include "report/minute_history.h"
#include "report/session_report.h"
#include "view/view_source.h"

namespace trabex {

// The row of an open session.
std::string RowOf(const cProxy& session);

class LiveSource final : public ViewSource {
 public:
  // With more open sessions than this their bytes are added up every few seconds only.
  static constexpr std::size_t kMaxAddedAtOnce = 1000;
  static constexpr std::chrono::seconds kBytesInterval{5};

  // All outlive it.
  LiveSource(SessionCollection& sessions, const Counters& counters, const SessionReport& report,
             const MinuteHistory& history, const Clock& clock)
      : sessions_(sessions), counters_(counters), report_(report), history_(history), clock_(clock) {}

  void SetStatus(std::string status) { status_ = std::move(status); }

  std::string Status() const override { return status_; }
  std::string Version() const override;
  std::string Header() const override;
  std::size_t SessionCount() const override { return sessions_.Count(); }
  SessionId SessionAt(std::size_t index) const override { return sessions_.IdAt(index); }
  SessionSnapshot SnapshotAt(std::size_t index) const override;
  std::string RowText(std::size_t index) const override;
  Totals CurrentTotals() const override;
  MinuteCounts Minutes() const override { return history_.Minutes(); }
  const RecentRefusals& Refusals() const override { return report_.Refusals(); }
  int TimeZoneBias() const override { return clock_.TimeZoneBias(); }
  bool CloseSession(SessionId id) override;

 private:
  SessionCollection& sessions_;
  const Counters& counters_;
  const SessionReport& report_;
  const MinuteHistory& history_;
  const Clock& clock_;
  std::string status_;
  // Of the open connections.
  struct AddedBytes {
    MonotonicTime time{};
    OpenByteCounts bytes{};
  };
  mutable std::optional<AddedBytes> added_;
};

}  // namespace trabex
