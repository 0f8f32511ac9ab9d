#include "report/minute_history.h"

#include <algorithm>
#include <chrono>

namespace trabex {

void MinuteHistory::Observe(MonotonicTime now, std::uint64_t messages, std::uint64_t refusals) {
  const std::int64_t number = std::chrono::floor<std::chrono::minutes>(now - begin_).count();
  constexpr auto kCount = static_cast<std::int64_t>(kMinutes);
  for (std::int64_t next = std::max(number_, number - kCount) + 1; next <= number; ++next) {
    minutes_[static_cast<std::size_t>(next % kCount)] = {};
  }
  number_ = std::max(number_, number);
  Minute& minute = minutes_[static_cast<std::size_t>(number_ % kCount)];
  minute.messages += messages - seen_.messages;
  minute.refusals += refusals - seen_.refusals;
  seen_ = {messages, refusals};
}

std::array<MinuteHistory::Minute, MinuteHistory::kMinutes> MinuteHistory::Minutes() const {
  std::array<Minute, kMinutes> result;
  const auto oldest = static_cast<std::size_t>(number_ + 1);
  for (std::size_t i = 0; i < kMinutes; ++i) result[i] = minutes_[(oldest + i) % kMinutes];
  return result;
}

}  // namespace trabex
