// The greylisting decision.
//
// Mail from a triple of client network, sender and recipient that was not seen before is refused for now.
// Real mail servers come again; once the delay has passed and enough attempts were made the triple is
// accepted for a long time. The session asks here for each recipient of a remote client while greylisting is
// enabled.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/ip_address.h"
#include "base/log.h"
#include "config/configuration.h"
#include "greylist/greylisting_database.h"
#include "greylist/pending_warning.h"
#include "match/decision_trace.h"
#include "platform/clock.h"

namespace trabex {

// The first three mean "not yet".
enum class GreyListingOutcome {
  kNew = 0,          // new triple, delayed
  kExpired = 1,      // expired triple, delayed; never the outcome, since such a triple passes at once
  kDelayed = 2,      // known triple, still delayed
  kAccepted = 3,     // the recipient may pass
  kWhitelisted = 4,  // likewise, and no record is kept
};

inline bool IsDelayed(GreyListingOutcome outcome) {
  return outcome <= GreyListingOutcome::kDelayed;
}

struct GreyListingVerdict {
  GreyListingOutcome outcome;
  bool blacklisted = false;
  // nullptr for a whitelisted client. Valid until the database changes.
  const cGreyListingData* record = nullptr;
};

class mGreyListing {
 public:
  // What the client's address and name decide.
  struct DelayPolicy {
    bool blacklisted;
    double delay;            // days
    std::int32_t min_count;  // more attempts than these are needed
  };
  // One more attempt of a client under `policy`, whose record is there; changes nothing but the record.
  static GreyListingOutcome Attempt(cGreyListingData& record, const GreyListingSettings& settings,
                                    const DelayPolicy& policy, DateTime now);

  // All outlive this object. Settings are read at each use. `trace`, if there is one, is told what decides.
  mGreyListing(const GreyListingSettings& settings, Log& log, const Clock& clock,
               GreyListingDatabase& database, PendingWarning& warning, DecisionTrace* trace = nullptr)
      : settings_(settings),
        log_(log),
        clock_(clock),
        database_(database),
        warning_(warning),
        trace_(trace) {}

  // `host_name` is the client's name as resolved for the session, empty when it has none, and nothing when that is
  // not known: then neither list of names is looked at. `ip` is its address; `sender` and
  // `recipient` are addresses without angle brackets, letter case as it may be. Creates or refreshes the
  // triple's record, sets the database's changed flag and, where the settings say so, writes one log line; a
  // whitelisted client has the log line only. For a new record older pending ones may have to go (MaxPending,
  // MaxPendingPerNetwork).
  GreyListingVerdict Judge(std::optional<std::string_view> host_name, const IPAddress& ip,
                           std::string_view sender, std::string_view recipient);
  GreyListingOutcome GreyListingCheck(std::optional<std::string_view> host_name, const IPAddress& ip,
                                      std::string_view sender, std::string_view recipient) {
    return Judge(host_name, ip, sender, recipient).outcome;
  }

 private:
  cGreyListingData& NewRecord(std::string key, std::string_view network, const DelayPolicy& policy,
                              DateTime now);
  DelayPolicy DelayPolicyFor(const IPAddress& ip, std::optional<std::string_view> host_name) const;
  void LogOutcome(GreyListingOutcome outcome, bool blacklisted, const cGreyListingData* record) const;

  const GreyListingSettings& settings_;
  Log& log_;
  const Clock& clock_;
  GreyListingDatabase& database_;
  PendingWarning& warning_;
  DecisionTrace* trace_;
};

}  // namespace trabex
