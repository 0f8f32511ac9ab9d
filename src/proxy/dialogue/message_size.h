// How large a message may be that a client sends (EnforceMaxSize).
#pragma once

#include <cstdint>

#include "base/numbers.h"
#include "config/configuration.h"
#include "proxy/dialogue/dialogue_state.h"

namespace trabex {

// The largest message of the session in bytes, 0 for any: the limit that EHLO's reply has offered, and before an
// EHLO that of the settings.
FixedPoint MessageSizeLimit(const Configuration& configuration, const OfferedState& offered);

// Whether a message of so many octets is not to be delivered. False unless the settings have messages measured.
inline bool IsTooLarge(std::uint64_t octets, const Configuration& configuration,
                       const OfferedState& offered) {
  if (!configuration.Service.EnforceMaxSize) return false;
  const auto limit = static_cast<std::uint64_t>(MessageSizeLimit(configuration, offered) / kFixedPointOne);
  return limit != 0 && octets > limit;
}

}  // namespace trabex
