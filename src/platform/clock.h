// Time as the program sees it. It is passed in, so that a test sets it.
#pragma once

#include <chrono>
#include <cstdint>

#include "base/date_time.h"

namespace trabex {

using MonotonicTime = std::chrono::steady_clock::time_point;

class Clock {
 public:
  virtual ~Clock() = default;

  // The local date and time, in whole seconds: the second that is running.
  virtual DateTime Now() const = 0;
  // Universal minus local time in minutes, daylight saving included; -180 east of Greenwich by three hours.
  virtual int TimeZoneBias() const = 0;
  // A time that never goes back and counts on while the machine runs; timers use it.
  virtual MonotonicTime Monotonic() const = 0;

  // Universal time: the local time plus the bias.
  DateTime UniversalNow() const { return Now() + TimeZoneBias() / kMinutesPerDay; }
  // The current local time as an RFC 822 date-time with a numeric zone.
  std::string RFCDate() const { return FormatRFCDate(Now(), TimeZoneBias()); }
};

// The machine's own clock and time zone.
class SystemClock final : public Clock {
 public:
  DateTime Now() const override;
  int TimeZoneBias() const override;
  MonotonicTime Monotonic() const override;

 private:
  // Universal minus local time in seconds at `now` (seconds since 1 January 1970). Asked of the system once a
  // second: a busy log asks for the time with every line.
  long BiasSeconds(std::int64_t now) const;

  mutable std::int64_t bias_second_ = -1;  // when it was asked for last
  mutable long bias_ = 0;
};

}  // namespace trabex
