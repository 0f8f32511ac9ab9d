#include "proxy/dialogue/greylist_check.h"

#include <array>
#include <cstddef>

namespace trabex {

GreylistingResult ResultOf(const GreylistVerdict& verdict, bool callback) {
  using Outcome = GreylistVerdict::Outcome;
  if (callback) return GreylistingResult::kCallback;
  switch (verdict.outcome) {
    case Outcome::kWhitelisted:
      return GreylistingResult::kWhitelisted;
    case Outcome::kAccepted:
      return GreylistingResult::kAccepted;
    case Outcome::kNew:
      return verdict.blacklisted ? GreylistingResult::kBlacklistedNew : GreylistingResult::kNew;
    case Outcome::kDelayed:
      break;
  }
  return verdict.blacklisted ? GreylistingResult::kBlacklistedDelayed : GreylistingResult::kDelayed;
}

std::string_view GreylistingResultName(GreylistingResult result) {
  constexpr std::array<std::string_view, 7> kNames = {
      "whitelisted", "accepted", "new", "delayed", "blacklisted_new", "blacklisted_delayed", "callback"};
  return kNames[static_cast<std::size_t>(result)];
}

}  // namespace trabex
