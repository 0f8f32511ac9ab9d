#include "greylist/mGreyListing.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>

#include "base/date_time.h"
#include "base/text.h"
#include "greylist/triple_key.h"

namespace trabex {

namespace {

constexpr std::array<std::string_view, 5> kOutcomeTexts = {"New, Delayed.", "Expired, Delayed.", "Delayed.",
                                                           "Accepted.", "Whitelisted."};

// Makes an attempt's negative count the positive one of an accepted triple.
std::int32_t AcceptedCount(const cGreyListingData& record) {
  return static_cast<std::int32_t>(
      std::min<std::int64_t>(record.Attempts(), std::numeric_limits<std::int32_t>::max()));
}

}  // namespace

GreyListingVerdict mGreyListing::Judge(std::optional<std::string_view> host_name, const IPAddress& ip,
                                       std::string_view sender, std::string_view recipient) {
  if (MatchesList(ip, settings_.IPWhiteList, trace_) ||
      (host_name && MatchesList(*host_name, settings_.HostsWhiteList, trace_))) {
    LogOutcome(GreyListingOutcome::kWhitelisted, false, nullptr);
    return {GreyListingOutcome::kWhitelisted};
  }
  const std::string network = NetworkOf(ip, settings_.IPv6Prefix);
  std::string key = TripleKey(network, sender, recipient);
  cGreyListingData* record = database_.Find(key);
  const DateTime now = clock_.UniversalNow();
  const DelayPolicy policy = DelayPolicyFor(ip, host_name);

  auto outcome = GreyListingOutcome::kNew;
  if (record == nullptr) {
    record = &NewRecord(std::move(key), network, policy, now);
  } else {
    const bool was_pending = record->Pending();
    outcome = Attempt(*record, settings_, policy, now);
    if (was_pending && !record->Pending()) database_.Accepted(*record);
  }
  database_.SetChanged(true);
  LogOutcome(outcome, policy.blacklisted, record);
  return {outcome, policy.blacklisted, record};
}

cGreyListingData& mGreyListing::NewRecord(std::string key, std::string_view network,
                                          const DelayPolicy& policy, DateTime now) {
  database_.SetLimits(PendingLimitsOf(settings_));
  cGreyListingData& record =
      database_.Add({std::move(key), now + settings_.ShortTTL, now + policy.delay, -1});
  warning_.Dropped(database_.TakeDropped(), network);
  return record;
}

mGreyListing::DelayPolicy mGreyListing::DelayPolicyFor(const IPAddress& ip,
                                                       std::optional<std::string_view> host_name) const {
  if (MatchesList(ip, settings_.IPBlackList, trace_) ||
      (host_name && MatchesList(*host_name, settings_.HostsBlackList, trace_))) {
    return {true, settings_.BlackListDelay, settings_.BlackListMinCount};
  }
  return {false, settings_.Delay, settings_.MinCount};
}

// The order of these steps is what makes an expired triple pass at once: its count of 0 becomes 1, and a
// positive count is an accepted one. A sender who retried before is known already, and the long life time
// begins again.
GreyListingOutcome mGreyListing::Attempt(cGreyListingData& record, const GreyListingSettings& settings,
                                         const DelayPolicy& policy, DateTime now) {
  if (now > record.ExpireAt()) {
    record.SetCount(0);
    record.SetExpireAt(now + settings.ShortTTL);
    record.SetDelayedUntil(now + policy.delay);
  }
  record.IncrementAttempts();
  if (record.Count() > 0) {
    record.SetExpireAt(now + settings.TTL);
    return GreyListingOutcome::kAccepted;
  }
  if (now < record.DelayedUntil()) return GreyListingOutcome::kDelayed;
  if (record.Attempts() <= policy.min_count) return GreyListingOutcome::kDelayed;
  record.SetCount(AcceptedCount(record));
  record.SetExpireAt(now + settings.TTL);
  return GreyListingOutcome::kAccepted;
}

void mGreyListing::LogOutcome(GreyListingOutcome outcome, bool blacklisted,
                              const cGreyListingData* record) const {
  if (settings_.Log == 0) return;
  const double bias = clock_.TimeZoneBias() / kMinutesPerDay;
  std::string line = "Greylisting: ";
  if (blacklisted) line += "Blacklisted, ";
  line += kOutcomeTexts[static_cast<std::size_t>(outcome)];
  if (record != nullptr) {
    line += " Attempts: " + std::to_string(record->Attempts());
    line += "; Will expire at: " + FormatGeneralDate(record->ExpireAt() - bias);
    if (IsDelayed(outcome)) line += "; Delayed until: " + FormatGeneralDate(record->DelayedUntil() - bias);
    line += ".";
  }
  log_.LogLine(line);
}

}  // namespace trabex
