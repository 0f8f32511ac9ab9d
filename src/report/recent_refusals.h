// The latest refusals, which no table of open sessions can show since most of their sessions live for a moment.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/ip_address.h"
#include "proxy/session_id.h"

namespace trabex {

struct RefusalRecord {
  // Of each text; what is longer is cut.
  static constexpr std::size_t kMaxText = 320;

  std::int64_t time = 0;  // in milliseconds since 1970, universal
  SessionId session = 0;
  IPAddress client;
  std::string_view key;   // the response key; valid for good
  bool delayed = false;   // by greylisting
  bool has_from = false;  // whether there was a sender at that point; the empty one is one
  std::string from;
  std::string to;  // "": none
};

class RecentRefusals {
 public:
  static constexpr std::size_t kMax = 500;

  std::size_t size() const { return records_.size(); }
  // `index` is below size(); 0 is the latest one. Valid until the next Add.
  const RefusalRecord& operator[](std::size_t index) const;
  // Of all that there have been; it tells whether anything is new.
  std::uint64_t Count() const { return count_; }
  // Of those, by greylisting.
  std::uint64_t DelayedCount() const { return delayed_count_; }

  // A new record, at the limit in the place of the oldest one. All of it but `delayed` is to be set.
  RefusalRecord& Add(bool delayed);

 private:
  std::vector<RefusalRecord> records_;
  std::size_t latest_ = 0;
  std::uint64_t count_ = 0;
  std::uint64_t delayed_count_ = 0;
};

}  // namespace trabex
