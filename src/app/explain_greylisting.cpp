#include "app/explain_greylisting.h"

#include <utility>

#include "app/greylisting.h"
#include "greylist/triple_key.h"

namespace trabex {

ExplainedGreylisting::ExplainedGreylisting(const GreyListingSettings& settings, const Clock& clock,
                                           EventLoop& loop, std::optional<std::int64_t> seen, FindRecord find,
                                           DecisionTrace& trace)
    : settings_(settings),
      pretends_(seen.has_value()),
      earlier_(clock, seen.value_or(0)),
      find_(std::move(find)),
      warning_(log_, loop),
      decision_(settings, log_, clock, database_, warning_, &trace),
      first_contact_(settings, log_, earlier_, database_, warning_) {}

GreylistVerdict ExplainedGreylisting::ShouldDefer(std::optional<std::string_view> host_name,
                                                  const IPAddress& ip, std::string_view sender,
                                                  std::string_view recipient) {
  const std::string key = TripleKey(NetworkOf(ip, settings_.IPv6Prefix), sender, recipient);
  if (prepared_.insert(key).second) {
    Prepare(key, host_name, ip, std::string(sender), std::string(recipient));
  }
  was_known_ = database_.Find(key) != nullptr;
  return ForSession(decision_.Judge(host_name, ip, sender, recipient));
}

void ExplainedGreylisting::Prepare(const std::string& key, std::optional<std::string_view> host_name,
                                   const IPAddress& ip, const std::string& sender,
                                   const std::string& recipient) {
  if (pretends_) {
    first_contact_.Judge(host_name, ip, sender, recipient);
  } else if (const auto record = find_(ip, sender, recipient)) {
    // The key is ours, whatever prefix the one who knows the record has.
    database_.Add({key, record->ExpireAt(), record->DelayedUntil(), record->Count()});
  }
}

}  // namespace trabex
