// Settings with which every client may send mail to every domain, since they leave nobody out.
#pragma once

#include <vector>

#include "match/ip_range.h"
#include "match/mText.h"

namespace trabex {

// Whether `entry` of a list of domains matches any text with a dot in it.
bool MatchesEveryDomain(const ListEntry& entry);

// Whether those of one family among `ranges` leave none of its addresses out.
bool TogetherHoldAll(std::vector<IPRange> ranges, bool is_ipv6);

}  // namespace trabex
