#include "platform/clock.h"

#include <sys/time.h>

#include <ctime>

namespace trabex {

namespace {

// Universal minus local time in seconds at `now`.
long BiasSeconds(std::time_t now) {
  std::tm local{};
  localtime_r(&now, &local);
  return -local.tm_gmtoff;
}

}  // namespace

DateTime SystemClock::Now() const {
  timeval now{};
  gettimeofday(&now, nullptr);
  return FromUnix(now.tv_sec - BiasSeconds(now.tv_sec), static_cast<int>(now.tv_usec));
}

int SystemClock::TimeZoneBias() const {
  return static_cast<int>(BiasSeconds(std::time(nullptr)) / 60);
}

MonotonicTime SystemClock::Monotonic() const {
  return std::chrono::steady_clock::now();
}

}  // namespace trabex
