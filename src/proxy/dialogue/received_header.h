// The trace header that the proxy adds to every message, RFC 5321, 4.4.
#pragma once

#include <string>

#include "config/configuration.h"
#include "platform/clock.h"
#include "proxy/dialogue/session_facts.h"
#include "proxy/dialogue/session_state.h"

namespace trabex {

// Two physical lines, without the last CR LF.
std::string GenerateReceivedHeader(const Configuration& configuration, const Clock& clock,
                                   const SessionFacts& facts, const SessionState& state);

}  // namespace trabex
