#include "proxy/dialogue/message_size.h"

#include <algorithm>

namespace trabex {

FixedPoint MessageSizeLimit(const Configuration& configuration, const OfferedState& offered) {
  if (offered.SizeLimit != 0) return offered.SizeLimit;
  // Whoever says HELO is offered nothing, and may send no more for that. Below 0 are the values without a limit.
  return std::max<FixedPoint>(configuration.MaxSize, 0);
}

}  // namespace trabex
