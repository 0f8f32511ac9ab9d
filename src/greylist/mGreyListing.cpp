#include "greylist/mGreyListing.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>

#include "base/date_time.h"
#include "base/text.h"
#include "base/unicode_fold.h"
#include "greylist/tagged_records.h"
#include "match/ip_range.h"
#include "match/mText.h"

namespace trabex {

namespace {

constexpr std::array<std::string_view, 5> kOutcomeTexts = {"New, Delayed.", "Expired, Delayed.", "Delayed.",
                                                           "Accepted.", "Whitelisted."};

// The client's network, which mail servers of one sender often share: the /24 of IPv4 as "192.0.2", of IPv6
// the block of `ipv6_prefix` bits as "2001:db8::/64". With its colons it is never the text of the other.
std::string NetworkOf(const IPAddress& ip, int ipv6_prefix) {
  if (!ip.IsIPv6()) return FormatIPv4Parts(ip, 3);
  return FormatIPAddress(ip.Prefix(ipv6_prefix)) + "/" + std::to_string(ipv6_prefix);
}

// "<network> <sender> <recipient>", in lower case. The blanks divide it, because an address holds
// none outside a quoted local part. Addresses with letters beyond ASCII are folded, so that no other spelling
// is another triple; keys without such letters are what they always were. The cut is never reached (a command
// line is far shorter); it is there because the database file cannot hold a longer key.
std::string TripleKey(std::string_view network, std::string_view sender, std::string_view recipient) {
  std::string key;
  key.reserve(network.size() + sender.size() + recipient.size() + 2);
  key.append(network);
  for (const std::string_view address : {sender, recipient}) {
    key.append(" ");
    if (IsAscii(address)) {
      key.append(address);
    } else {
      key.append(FoldText(address));
    }
  }
  std::transform(key.begin(), key.end(), key.begin(), [](char c) { return ToLower(c); });
  if (key.size() > kMaxTaggedBytes) key.resize(kMaxTaggedBytes);
  return key;
}

// Makes an attempt's negative count the positive one of an accepted triple.
std::int32_t AcceptedCount(const cGreyListingData& record) {
  return static_cast<std::int32_t>(
      std::min<std::int64_t>(record.Attempts(), std::numeric_limits<std::int32_t>::max()));
}

}  // namespace

GreyListingOutcome mGreyListing::GreyListingCheck(std::string_view host_name, const IPAddress& ip,
                                                  std::string_view sender, std::string_view recipient) {
  if (mCommon::IPInRangeList(ip, settings_.IPWhiteList) ||
      mText::MatchList(host_name, settings_.HostsWhiteList)) {
    LogOutcome(GreyListingOutcome::kWhitelisted, false, nullptr);
    return GreyListingOutcome::kWhitelisted;
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
    outcome = Evaluate(*record, policy, now);
    if (was_pending && !record->Pending()) database_.Accepted(*record);
  }
  database_.SetChanged(true);
  LogOutcome(outcome, policy.blacklisted, record);
  return outcome;
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
                                                       std::string_view host_name) const {
  if (mCommon::IPInRangeList(ip, settings_.IPBlackList) ||
      mText::MatchList(host_name, settings_.HostsBlackList)) {
    return {true, settings_.BlackListDelay, settings_.BlackListMinCount};
  }
  return {false, settings_.Delay, settings_.MinCount};
}

// The order of these steps is what makes an expired triple pass at once: its count of 0 becomes 1, and a
// positive count is an accepted one. A sender who retried before is known already, and the long life time
// begins again.
GreyListingOutcome mGreyListing::Evaluate(cGreyListingData& record, const DelayPolicy& policy,
                                          DateTime now) const {
  if (now > record.ExpireAt()) {
    record.SetCount(0);
    record.SetExpireAt(now + settings_.ShortTTL);
    record.SetDelayedUntil(now + policy.delay);
  }
  record.IncrementAttempts();
  if (record.Count() > 0) {
    record.SetExpireAt(now + settings_.TTL);
    return GreyListingOutcome::kAccepted;
  }
  if (now < record.DelayedUntil()) return GreyListingOutcome::kDelayed;
  if (record.Attempts() <= policy.min_count) return GreyListingOutcome::kDelayed;
  record.SetCount(AcceptedCount(record));
  record.SetExpireAt(now + settings_.TTL);
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
