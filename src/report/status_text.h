// The counters as text in the exposition format of Prometheus, version 0.0.4.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "report/counters.h"

namespace trabex {

// Every series is there from the start, with 0 where nothing was counted; no label holds anything that a peer
// has said.
std::string StatusText(const Counters& counters, const StatusNow& now);

// One value out of that text. `name` is a series as it is written there, or the name of a family, which gives
// the sum of its series; "trabex_" may be left out. Nothing when there is no such series.
std::optional<std::string> StatusValue(std::string_view text, std::string_view name);

}  // namespace trabex
