// One greylisting record: what is known of a triple of client network, sender and recipient.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <utility>

#include "base/date_time.h"

namespace trabex {

// Dates are universal time. The key cannot be changed: the database finds the record by it.
class cGreyListingData {
 public:
  cGreyListingData(std::string key, DateTime expire_at, DateTime delayed_until, std::int32_t count)
      : key_(std::move(key)), expire_at_(expire_at), delayed_until_(delayed_until), count_(count) {}

  const std::string& Key() const { return key_; }

  // The record counts as expired after this moment, not at it.
  DateTime ExpireAt() const { return expire_at_; }
  void SetExpireAt(DateTime time) { expire_at_ = time; }

  // A retry before this moment is still delayed, one at it no more.
  DateTime DelayedUntil() const { return delayed_until_; }
  void SetDelayedUntil(DateTime time) { delayed_until_ = time; }

  // Negative while the triple is greylisted, positive once it was accepted; the magnitude counts attempts.
  std::int32_t Count() const { return count_; }
  void SetCount(std::int32_t count) { count_ = count; }

  // Whether it was never accepted so far. Once accepted a record stays so.
  bool Pending() const { return count_ <= 0; }

  // The magnitude of Count; wider than it, since that of the lowest count has no positive counterpart.
  std::int64_t Attempts() const { return count_ < 0 ? -std::int64_t{count_} : count_; }

  // One more attempt: moves Count away from zero (from zero upwards) and stops at the ends of its range.
  void IncrementAttempts() {
    if (count_ >= 0) {
      if (count_ < std::numeric_limits<std::int32_t>::max()) ++count_;
    } else if (count_ > std::numeric_limits<std::int32_t>::min()) {
      --count_;
    }
  }

 private:
  std::string key_;
  DateTime expire_at_;
  DateTime delayed_until_;
  std::int32_t count_;
};

}  // namespace trabex
