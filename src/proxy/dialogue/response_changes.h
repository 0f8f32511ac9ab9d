// The administrator's changes to the replies that reach a client.
#pragma once

#include <string>
#include <string_view>

#include "config/configuration.h"
#include "proxy/dialogue/policy_replies.h"

namespace trabex {

// Rewrites `reply` (without its last CR LF) by the rules under `key`; returns whether there are any. Failures
// inside the rules are ignored: the reply goes out as it was.
bool ApplyResponseChanges(std::string_view key, std::string& reply, const Configuration& configuration,
                          const MacroSource& macros);

// The names under which a policy reply of `kind` may be changed, from the general to the specific, applied in
// this order. `key` is the reply's own key (for kind 1 one of "BadSeq.Transaction", "BadSeq.NoTransaction",
// "BadSeq.BDAT"), `verb` the command as the client sent it, in upper case.
void ApplyPolicyChanges(ReplyKind kind, std::string_view key, std::string_view verb, std::string& reply,
                        const Configuration& configuration, const SessionValues& macros);

}  // namespace trabex
