// The trace header that the proxy adds to every message, RFC 5321, 4.4.
#pragma once

#include <string>

#include "base/clock.h"
#include "config/configuration.h"
#include "proxy/dialogue/dialogue_state.h"
#include "proxy/dialogue/session_facts.h"

namespace trabex {

// Two physical lines, without the last CR LF.
std::string GenerateReceivedHeader(const Configuration& configuration, const Clock& clock,
                                   const SessionFacts& facts, const RequestedState& requested);

}  // namespace trabex
