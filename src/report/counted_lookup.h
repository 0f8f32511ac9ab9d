// Look-ups that are counted and timed.
#pragma once

#include <memory>

#include "platform/clock.h"
#include "report/counters.h"
#include "resolver/name_lookup.h"

namespace trabex {

// Asks `names` everything, and counts the answers in `counters`. `clock` and `counters` outlive it.
std::unique_ptr<NameLookup> CountLookups(std::unique_ptr<NameLookup> names, const Clock& clock,
                                         Counters& counters);

}  // namespace trabex
