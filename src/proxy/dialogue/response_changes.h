// The administrator's changes to the replies that reach a client.
#pragma once

#include <string>
#include <string_view>

#include "config/configuration.h"
#include "match/decision_trace.h"
#include "proxy/dialogue/dialogue_state.h"
#include "proxy/dialogue/policy_replies.h"

namespace trabex {

// Rewrites `reply` (without its last CR LF) by the rules under `key`, if there are any. Failures inside the
// rules are ignored: the reply goes out as it was. `trace`, unless it is nullptr, is told which rules counted.
void ApplyResponseChanges(std::string_view key, std::string& reply, const Configuration& configuration,
                          const MacroSource& macros, DecisionTrace* trace = nullptr);

// The names under which a policy reply of `kind` may be changed, from the general to the specific, applied in
// this order. `key` is the reply's own key (for kind 1 one of "BadSeq.Transaction", "BadSeq.NoTransaction",
// "BadSeq.BDAT"); names may hold the command's verb and the message's addresses, as `requested` has them.
// Nothing is changed when `key` is empty.
void ApplyPolicyChanges(ReplyKind kind, std::string_view key, const RequestedState& requested,
                        std::string& reply, const Configuration& configuration, const MacroSource& macros,
                        DecisionTrace* trace = nullptr);

}  // namespace trabex
