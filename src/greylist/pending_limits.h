// How many pending greylisting records are kept, and what came of it.
#pragma once

#include <cstddef>
#include <limits>

#include "config/configuration.h"

namespace trabex {

// The most that are kept.
struct PendingLimits {
  std::size_t in_all = std::numeric_limits<std::size_t>::max();
  std::size_t per_network = std::numeric_limits<std::size_t>::max();
};

inline PendingLimits PendingLimitsOf(const GreyListingSettings& settings) {
  return {static_cast<std::size_t>(settings.MaxPending),
          static_cast<std::size_t>(settings.MaxPendingPerNetwork)};
}

// How many were dropped, by the limit that demanded it.
struct DroppedPending {
  std::size_t by_limit_in_all = 0;
  std::size_t by_limit_per_network = 0;

  std::size_t Count() const { return by_limit_in_all + by_limit_per_network; }
};

}  // namespace trabex
