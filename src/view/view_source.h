// What the view shows, as the running program has it. It pulls: a text is made only while it is visible.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "proxy/session_id.h"
#include "report/minute_history.h"
#include "report/recent_refusals.h"
#include "report/session_snapshot.h"
#include "report/totals.h"

namespace trabex {

using MinuteCounts = std::array<MinuteHistory::Minute, MinuteHistory::kMinutes>;

class ViewSource {
 public:
  virtual ~ViewSource() = default;

  virtual std::string Status() const = 0;
  virtual std::string Version() const = 0;
  virtual std::string Header() const = 0;

  // The open sessions, the oldest first; the ids grow with the index (they may go on from 0 after the greatest
  // number). An index is good until a session comes or goes. All but RowText takes no memory, and the first two next
  // to no time.
  virtual std::size_t SessionCount() const = 0;
  virtual SessionId SessionAt(std::size_t index) const = 0;
  virtual SessionSnapshot SnapshotAt(std::size_t index) const = 0;
  // The row of the connection table; the name of the host stands at its end.
  virtual std::string RowText(std::size_t index) const = 0;

  virtual Totals CurrentTotals() const = 0;
  virtual MinuteCounts Minutes() const = 0;
  virtual const RecentRefusals& Refusals() const = 0;
  // Universal minus local time in minutes.
  virtual int TimeZoneBias() const = 0;

  // Asks the session to end, as the command to close one does; false when there is none of this id.
  virtual bool CloseSession(SessionId id) = 0;
};

}  // namespace trabex
