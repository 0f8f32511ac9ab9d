// Decides about each command line of the client: it goes to the server, as it is or rewritten, or the proxy
// answers it. The filter sets and sends nothing; the dialogue acts on what it returns.
//
// A line passes these stages in this order; the first one that refuses it answers:
//   form       control characters, length, blanks: what servers might read in another way than the filter
//   refused    a session whose client was refused gets 503, and 221 to QUIT
//   TLS        who must use it gets nothing else before; STARTTLS
//   order      greeting, transaction, chunk sequence
//   policy     HELO/EHLO, MAIL, RCPT, DATA, BDAT, each in a function of its own
// then it is rewritten (addresses, BDAT with the Received header) and forwarded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "base/clock.h"
#include "base/error.h"
#include "base/ip_address.h"
#include "config/configuration.h"
#include "match/decision_trace.h"
#include "proxy/dialogue/address_policy.h"
#include "proxy/dialogue/command_table.h"
#include "proxy/dialogue/dialogue_events.h"
#include "proxy/dialogue/dialogue_state.h"
#include "proxy/dialogue/greylist_check.h"
#include "proxy/dialogue/policy_replies.h"
#include "proxy/dialogue/session_facts.h"

namespace trabex {

// What a look-up of a host's addresses has found.
struct HostAddresses {
  bool found = false;
  std::span<const IPAddress> addresses;
};

// What the dialogue is to do with a line, and what it is to remember.
struct LineDecision {
  enum class Action {
    kForward,          // send `text` to the server
    kAnswer,           // send `text` and CR LF to the client; the server gets nothing
    kAskForAddresses,  // look up `text`, and call ProcessAddresses; no further line meanwhile
    kBreak,            // log `text` and close without a reply
    kStartTls,         // send `text` and CR LF to the client; what follows is its TLS
    kRefuseSize,       // with the octets that follow the message is too large
  };
  Action action = Action::kForward;
  std::string text;
  std::string logged;        // kForward: what the log shows in place of `text`; empty: all of it
  RequestedState requested;  // as it is after the line
  std::optional<ForwardedCommand> forwarded;   // kForward: the command, unless the line was none
  std::optional<std::uint64_t> octets_follow;  // of a BDAT: so many octets of the client are content
  bool end = false;                            // kAnswer: the session ends after the reply
  bool too_many_bad_sequences = false;         // the session ends after a pause
  std::optional<Error> failure;                // to be logged: what went wrong without stopping the line
  std::optional<Refusal> refusal;              // kAnswer: which reply it is; kBreak: why
  std::optional<GreylistVerdict> greylisting;  // of a recipient that was judged
};

class ClientCommandFilter {
 public:
  // Octets of a command line with its CR LF, and of authentication data (RFC 5321, 4.5.3.1.4; RFC 4954, 4).
  static constexpr std::size_t kMaxLine = 4096;
  static constexpr std::size_t kMaxAuthenticationLine = 12288;

  // All references outlive the filter. `greylisting` may be nullptr: then nothing is greylisted. `trace`, if
  // there is one, is told what decides.
  ClientCommandFilter(const Configuration& configuration, const Clock& clock, const SessionFacts& facts,
                      GreylistCheck* greylisting, DecisionTrace* trace = nullptr);

  // `line` is one line with its CR LF, as the client sent it.
  LineDecision ProcessIncomingData(std::string_view line, const DialogueState& state) const;
  // Goes on with `line`, which asked for a name's addresses.
  LineDecision ProcessAddresses(std::string_view line, const HostAddresses& answer,
                                const DialogueState& state) const;
  // Whether a line exceeds the limit; `line` is all of it (`whole`) or its beginning. False while it may
  // still end within the limit.
  static bool IsTooLong(std::string_view line, bool whole, Phase phase);
  // A reply that the proxy gives by itself, with its changes and without CR LF.
  std::string BuildReply(ReplyKind kind, const DialogueState& state) const;
  // `line` as the log may show it: without authentication data. The result is `line`, or lies in `hidden`.
  static std::string_view LoggedForm(std::string_view line, Phase phase, std::string& hidden);

 private:
  class LineFilter;

  const Configuration& configuration_;
  const Clock& clock_;
  const SessionFacts& facts_;
  GreylistCheck* greylisting_;
  DecisionTrace* trace_;
};

}  // namespace trabex
