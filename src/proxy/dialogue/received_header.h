// The trace header that the proxy adds to every message, RFC 5321, 4.4.
#pragma once

#include <string>

#include "base/clock.h"
#include "config/configuration.h"
#include "proxy/dialogue/dialogue_state.h"
#include "proxy/dialogue/session_facts.h"

namespace trabex {

// Two physical lines, without the last CR LF. Under TLS the protocol is one of RFC 3848, by whether the
// server took the latest AUTH, and the cipher is named (RFC 8314, 4.3).
std::string GenerateReceivedHeader(const Configuration& configuration, const Clock& clock,
                                   const SessionFacts& facts, const RequestedState& requested,
                                   const LoginState& login);

}  // namespace trabex
