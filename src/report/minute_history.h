// How many messages and refusals there were in each of the last 60 minutes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "base/clock.h"

namespace trabex {

// It looks at counters that only grow, so that counting costs nothing more. Its minutes follow the time that
// never goes back, from its beginning on: a clock that is set moves none of them.
class MinuteHistory {
 public:
  static constexpr std::size_t kMinutes = 60;

  struct Minute {
    std::uint64_t messages = 0;
    std::uint64_t refusals = 0;
  };

  explicit MinuteHistory(MonotonicTime begin) : begin_(begin) {}

  // The counters have come to this. What they have grown by since the last call counts for the minute of `now`, so
  // it is to be called several times in a minute. `now` is not before that of the call before.
  void Observe(MonotonicTime now, std::uint64_t messages, std::uint64_t refusals);

  // As of the last Observe: the oldest first, the last one is under way.
  std::array<Minute, kMinutes> Minutes() const;

 private:
  MonotonicTime begin_;
  std::int64_t number_ = 0;                 // of the minute under way
  std::array<Minute, kMinutes> minutes_{};  // a minute's place is its number modulo kMinutes
  Minute seen_;                             // what the counters had come to
};

}  // namespace trabex
