// The greylisting decision as the command filter asks for it.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "base/date_time.h"
#include "base/ip_address.h"

namespace trabex {

struct GreylistVerdict {
  enum class Outcome : std::uint8_t { kWhitelisted, kAccepted, kNew, kDelayed };

  // A verdict without a record.
  GreylistVerdict(bool is_deferred)  // NOLINT(google-explicit-constructor): most need no more than that
      : deferred(is_deferred), outcome(is_deferred ? Outcome::kNew : Outcome::kAccepted) {}
  explicit operator bool() const { return deferred; }

  bool deferred;
  Outcome outcome;
  bool blacklisted = false;    // the client waits longer
  std::int64_t attempts = 0;   // with this one; 0: there is no record
  DateTime delayed_until = 0;  // universal, as the next one
  DateTime expires = 0;
};

// How a recipient was judged, for who counts and shows it. With a blacklisted client the time to wait is longer.
enum class GreylistingResult : std::uint8_t {
  kWhitelisted,
  kAccepted,
  kNew,
  kDelayed,
  kBlacklistedNew,
  kBlacklistedDelayed,
  kCallback,  // deferred, and let through as one of a sender that only asks whether the recipient exists
};
GreylistingResult ResultOf(const GreylistVerdict& verdict, bool callback);
// "whitelisted", "accepted", "new", "delayed", "blacklisted_new", "blacklisted_delayed", "callback".
std::string_view GreylistingResultName(GreylistingResult result);

class GreylistCheck {
 public:
  virtual ~GreylistCheck() = default;
  // Counts the attempt; says whether the recipient is to be deferred (RFC 6647), that is refused for now.
  // `ip` is the client's address; `host_name` is empty when the client has none, and nothing when it is not known
  // whether it has one: then no list of names is about it.
  virtual GreylistVerdict ShouldDefer(std::optional<std::string_view> host_name, const IPAddress& ip,
                                      std::string_view sender, std::string_view recipient) = 0;
};

}  // namespace trabex
