#include "greylist/pending_warning.h"

#include <chrono>

namespace trabex {

PendingWarning::PendingWarning(Log& log, EventLoop& loop)
    : log_(log), hour_(loop, std::chrono::hours(1), [this] { Warn(); }) {}

void PendingWarning::Dropped(const DroppedPending& dropped, std::string_view network) {
  if (dropped.Count() == 0) return;
  count_ += dropped.Count();
  if (dropped.by_limit_per_network > 0) network_ = network;
  if (!hour_.Enabled()) Warn();
}

void PendingWarning::Warn() {
  if (count_ == 0) return hour_.Disable();
  std::string line = "Greylisting: Too many pending records. Dropped: " + std::to_string(count_);
  if (!network_.empty()) line += "; Network: " + network_;
  log_.LogLine(line + ".");
  count_ = 0;
  network_.clear();
  hour_.Enable();
}

}  // namespace trabex
