// Reads what the server's replies mean, and rewrites them for the client. The filter sets and sends nothing;
// the dialogue acts on what it returns.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/clock.h"
#include "config/configuration.h"
#include "match/decision_trace.h"
#include "proxy/dialogue/dialogue_state.h"
#include "proxy/dialogue/session_facts.h"

namespace trabex {

// What the dialogue is to do with a reply, and what it is to remember.
struct ReplyDecision {
  std::string text;    // for the client, with its line ends
  std::string header;  // for the server, when not empty: it opens the message content
  PhaseEvent event = PhaseEvent::kReply;
  Transaction transaction = Transaction::kNoGreeting;
  std::optional<RequestedState> requested;  // when it changes
  std::optional<OfferedState> offered;
  std::optional<LoginState> login;
};

class ServerReplyFilter {
 public:
  // All references outlive the filter. `trace`, if there is one, is told what decides.
  ServerReplyFilter(const Configuration& configuration, const Clock& clock, const SessionFacts& facts,
                    DecisionTrace* trace = nullptr);

  // `reply` is one complete reply with its line ends.
  ReplyDecision ProcessOutgoingData(std::string_view reply, const DialogueState& state) const;

 private:
  const Configuration& configuration_;
  const Clock& clock_;
  const SessionFacts& facts_;
  DecisionTrace* trace_;
};

}  // namespace trabex
