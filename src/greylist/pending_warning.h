// The warning in the log when pending greylisting records have to be dropped.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "base/log.h"
#include "greylist/pending_limits.h"
#include "platform/event_loop.h"

namespace trabex {

// One line an hour at most, so that a flood cannot fill the log: the first at once, for the operator to know;
// an hour later one for all that was dropped meanwhile, and so on until an hour passes without. It does not
// depend on the section's Log, which is for decisions: the warning says that mail is delayed longer than the
// settings say.
class PendingWarning {
 public:
  // Both outlive this object.
  PendingWarning(Log& log, EventLoop& loop);

  // `network` is that of the record for which others were dropped, as the log is to show it; empty when it is
  // not known.
  void Dropped(const DroppedPending& dropped, std::string_view network);

 private:
  void Warn();

  Log& log_;
  std::size_t count_ = 0;  // dropped and not logged yet
  std::string network_;    // the last one that reached its own limit
  Timer hour_;             // since the last line
};

}  // namespace trabex
