// Greylisting for an explanation: decides as that of the program does, and keeps what comes of it to itself.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "base/log.h"
#include "config/configuration.h"
#include "greylist/cGreyListingData.h"
#include "greylist/greylisting_database.h"
#include "greylist/mGreyListing.h"
#include "greylist/pending_warning.h"
#include "platform/clock.h"
#include "platform/event_loop.h"
#include "proxy/dialogue/greylist_check.h"

namespace trabex {

class ExplainedGreylisting final : public GreylistCheck {
 public:
  // The record of such a client, sender and recipient; nothing when there is none.
  using FindRecord = std::function<std::optional<cGreyListingData>(
      const IPAddress& ip, const std::string& sender, const std::string& recipient)>;

  // All outlive it. `seen`: so many minutes ago each recipient was tried first, whatever `find` knows.
  ExplainedGreylisting(const GreyListingSettings& settings, const Clock& clock, EventLoop& loop,
                       std::optional<std::int64_t> seen, FindRecord find, DecisionTrace& trace);

  // Raises what `find` raises.
  GreylistVerdict ShouldDefer(std::optional<std::string_view> host_name, const IPAddress& ip,
                              std::string_view sender, std::string_view recipient) override;

  // Whether the latest recipient that was judged had a record, or a pretended first contact.
  bool WasKnown() const { return was_known_; }

 private:
  // Some minutes before another clock.
  class EarlierClock final : public Clock {
   public:
    EarlierClock(const Clock& clock, std::int64_t minutes) : clock_(clock), minutes_(minutes) {}
    DateTime Now() const override { return clock_.Now() - static_cast<double>(minutes_) / kMinutesPerDay; }
    int TimeZoneBias() const override { return clock_.TimeZoneBias(); }
    MonotonicTime Monotonic() const override { return clock_.Monotonic(); }

   private:
    const Clock& clock_;
    std::int64_t minutes_;
  };
  class NoLog final : public Log {
   public:
    void LogLine(std::string_view /*message*/) override {}
  };

  // Takes in what is known of it so far.
  void Prepare(const std::string& key, std::optional<std::string_view> host_name, const IPAddress& ip,
               const std::string& sender, const std::string& recipient);

  const GreyListingSettings& settings_;
  bool pretends_;
  EarlierClock earlier_;
  FindRecord find_;
  NoLog log_;
  GreyListingDatabase database_;
  PendingWarning warning_;
  mGreyListing decision_;
  mGreyListing first_contact_;
  std::set<std::string> prepared_;  // keys
  bool was_known_ = false;
};

}  // namespace trabex
