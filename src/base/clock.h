// Time as the program sees it. It is passed in, so that a test sets it.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

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
  // Universal time in milliseconds since 1970, for records that programs read.
  virtual std::int64_t UnixMilliseconds() const { return ToUnixMilliseconds(UniversalNow()); }
  // A time that never goes back and counts on while the machine runs; timers use it.
  virtual MonotonicTime Monotonic() const = 0;

  // Universal time: the local time plus the bias.
  DateTime UniversalNow() const { return Now() + TimeZoneBias() / kMinutesPerDay; }
  // The current local time as an RFC 822 date-time with a numeric zone.
  std::string RFCDate() const { return FormatRFCDate(Now(), TimeZoneBias()); }
};

}  // namespace trabex
