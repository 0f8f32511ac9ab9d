#include "platform/clock.h"

#include <ctime>

#include "platform/windows/win.h"

namespace trabex {

long SystemClock::BiasSeconds(std::int64_t now) const {
  if (now == bias_second_) return bias_;
  TIME_ZONE_INFORMATION zone{};
  long minutes = 0;
  const DWORD season = GetTimeZoneInformation(&zone);
  if (season != TIME_ZONE_ID_INVALID) minutes = zone.Bias;
  if (season == TIME_ZONE_ID_STANDARD) minutes += zone.StandardBias;
  if (season == TIME_ZONE_ID_DAYLIGHT) minutes += zone.DaylightBias;
  bias_second_ = now;
  return bias_ = minutes * 60;
}

// Texts of a time are rounded to the nearest second; without its fraction no text is ahead of the time.
DateTime SystemClock::Now() const {
  const std::time_t now = std::time(nullptr);
  return FromUnix(now - BiasSeconds(now), 0);
}

int SystemClock::TimeZoneBias() const {
  return static_cast<int>(BiasSeconds(std::time(nullptr)) / 60);
}

std::int64_t SystemClock::UnixMilliseconds() const {
  const auto since = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(since).count();
}

MonotonicTime SystemClock::Monotonic() const {
  return std::chrono::steady_clock::now();
}

}  // namespace trabex
