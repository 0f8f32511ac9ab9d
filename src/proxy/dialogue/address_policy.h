// What the lists of the settings say of senders and recipients. Addresses are in their canonical form, without
// brackets. A `trace` is told each list that is asked; nullptr: nobody is told.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "config/configuration.h"
#include "match/decision_trace.h"
#include "proxy/dialogue/dialogue_events.h"
#include "proxy/dialogue/dialogue_state.h"
#include "proxy/dialogue/policy_replies.h"
#include "proxy/dialogue/session_facts.h"

namespace trabex {

// Why a line is refused.
struct Refusal {
  ReplyKind kind;
  std::string_view key = FindPolicyReply(kind).key;  // of a member of a family its own
  DecidingList list = {};
};

// Whether the client may send from the address; the null sender always may.
std::optional<Refusal> RefusedSender(const Configuration& configuration, const std::string& sender,
                                     DecisionTrace* trace);

// Whether the client may send to `requested.Recipient` in the transaction that it has begun: relaying and the lists of
// local and of remote clients.
std::optional<Refusal> RefusedRecipient(const Configuration& configuration, const SessionFacts& facts,
                                        const RequestedState& requested, DecisionTrace* trace);

}  // namespace trabex
