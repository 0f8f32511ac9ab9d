// What the log is told when pending greylisting records have to be dropped.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "base/log.h"
#include "greylist/pending_limits.h"
#include "platform/event_loop.h"

namespace trabex {

// One line an hour at most, whoever wants to fill the log too: the first at once, so that the operator knows;
// an hour later one for all that was dropped meanwhile, and so on until an hour passes without. It does not
// depend on the section's Log, which is for decisions: this one says that mail is delayed longer than the
// settings say.
class PendingWarning {
 public:
  // Both outlive this object.
  PendingWarning(Log& log, EventLoop& loop);

  // `network` is the one whose record was the one too many, as the log is to show it; empty when nobody can
  // say.
  void Dropped(const DroppedPending& dropped, std::string_view network);

 private:
  void Tell();

  Log& log_;
  std::size_t count_ = 0;  // dropped and not told yet
  std::string network_;    // the last one that reached its own limit
  Timer hour_;             // since the last line
};

}  // namespace trabex
