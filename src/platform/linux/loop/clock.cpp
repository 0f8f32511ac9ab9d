#include "platform/clock.h"

#include <sys/time.h>

#include <ctime>

namespace trabex {

long SystemClock::BiasSeconds(std::int64_t now) const {
  if (now == bias_second_) return bias_;
  const auto second = static_cast<std::time_t>(now);
  std::tm local{};
  localtime_r(&second, &local);
  bias_second_ = now;
  return bias_ = -local.tm_gmtoff;
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
  timeval now{};
  gettimeofday(&now, nullptr);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_usec / 1000;
}

MonotonicTime SystemClock::Monotonic() const {
  return std::chrono::steady_clock::now();
}

}  // namespace trabex
