// A clock that stands still until the test moves it.
#pragma once

#include "platform/clock.h"
#include "platform/event_loop.h"

namespace trabex {

class FakeClock final : public Clock {
 public:
  DateTime Now() const override { return now_; }
  int TimeZoneBias() const override { return bias_; }
  MonotonicTime Monotonic() const override { return monotonic_; }

  // Local time.
  void SetNow(DateTime now) { now_ = now; }
  // Universal minus local time in minutes.
  void SetBias(int minutes) { bias_ = minutes; }
  // Moves the local and the monotonic time on together.
  void Advance(Milliseconds span) {
    now_ += static_cast<double>(span.count()) / (kSecondsPerDay * 1000.0);
    monotonic_ += span;
  }

 private:
  DateTime now_ = 46341.70444;  // 15 November 2026, 16:54:24
  int bias_ = 0;
  MonotonicTime monotonic_{std::chrono::hours(1)};
};

}  // namespace trabex
