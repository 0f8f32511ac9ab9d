// The machine's own clock and time zone.
#pragma once

#include <cstdint>

#include "base/clock.h"

namespace trabex {

class SystemClock final : public Clock {
 public:
  DateTime Now() const override;
  int TimeZoneBias() const override;
  std::int64_t UnixMilliseconds() const override;
  MonotonicTime Monotonic() const override;

 private:
  // Universal minus local time in seconds at `now` (seconds since 1 January 1970). Asked of the system once a
  // second: a busy log asks for the time with every line.
  long BiasSeconds(std::int64_t now) const;

  mutable std::int64_t bias_second_ = -1;  // when it was asked for last
  mutable long bias_ = 0;
};

}  // namespace trabex
