// Decides about each command line of the client: it goes to the server, as it is or rewritten, or the proxy
// answers it. The filter sees no socket and sends nothing; the session acts on what it returns.
//
// A line passes these stages in this order; the first one that refuses it answers:
//   form       control characters, length, blanks: what servers might read in another way than the filter
//   refused    a session whose client was refused gets 503, and 221 to QUIT
//   order      greeting, transaction, chunk sequence
//   policy     HELO/EHLO, MAIL, RCPT, DATA, BDAT, each in a function of its own
// then it is rewritten (addresses, BDAT with the Received header) and forwarded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/error.h"
#include "config/configuration.h"
#include "platform/clock.h"
#include "proxy/dialogue/command_table.h"
#include "proxy/dialogue/greylist_check.h"
#include "proxy/dialogue/policy_replies.h"
#include "proxy/dialogue/session_facts.h"
#include "proxy/dialogue/session_macros.h"
#include "proxy/dialogue/session_state.h"
#include "resolver/name_lookup.h"

namespace trabex {

// What the session is to do with a line.
struct LineDecision {
  enum class Action {
    kForward,      // send `text`, then `extra` (may be empty), to the server
    kAnswer,       // send `text` and CR LF to the client; the server gets nothing
    kWaitForName,  // look up `text` and call ProcessNameAnswer; no further line meanwhile
    kBreak,        // log `text` and close without a reply
  };
  Action action = Action::kForward;
  std::string text;
  std::string extra;
  std::string
      logged;  // kForward: what the log shows in place of `text`, when that is secret; otherwise empty
  bool close_when_sent = false;         // kAnswer: the session ends behind the reply
  bool too_many_bad_sequences = false;  // the session ends after a pause
  std::optional<Error> failure;         // to be logged: what went wrong without stopping the line
};

class ClientCommandFilter {
 public:
  // Octets of a command line with its CR LF, and of authentication data (RFC 5321, 4.5.3.1.4; RFC 4954, 4).
  static constexpr std::size_t kMaxLine = 4096;
  static constexpr std::size_t kMaxAuthenticationLine = 12288;

  // All references outlive the filter. `greylisting` may be nullptr: then nothing is greylisted.
  ClientCommandFilter(const Configuration& configuration, const Clock& clock, const SessionFacts& facts,
                      SessionState& state, GreylistCheck* greylisting);

  // `line` is one line with its CR LF, as the client sent it.
  LineDecision ProcessIncomingData(std::string_view line);
  // Goes on with the line that waits for a name.
  LineDecision ProcessNameAnswer(const AddressAnswer& answer);
  // The line that `begin` begins is longer than any that is taken: what to answer. Nothing while it may still
  // end in time. `begin` is what was received of it.
  std::optional<LineDecision> RefuseLongLine(std::string_view begin);
  // The content breaks off at a dot that servers read differently.
  LineDecision RefuseAmbiguousEnd();
  // `line` as the log may show it: without authentication data.
  std::string LoggedForm(std::string_view line) const;

 private:
  // A line in its parts: verb in upper case, and the rest behind it, which begins with its blank, without CR
  // LF.
  struct Line {
    std::string text;  // verb as written, one blank, rest
    std::string verb;
    const CommandRow* row = nullptr;

    std::string_view Rest() const { return std::string_view(text).substr(verb.size()); }
  };
  // Why a line is refused.
  struct Refusal {
    ReplyKind kind;
    std::string_view key;  // "": the kind's own
  };
  using MaybeRefusal = std::optional<Refusal>;

  static Line TakeApart(std::string_view line);

  MaybeRefusal CheckOrder(const Line& line) const;
  MaybeRefusal CheckTransactionOrder(const Line& line) const;
  MaybeRefusal CheckHeloBlackList() const;
  bool HeloMatchesHostName() const;
  bool AsksForSmtpUtf8(std::string_view parameters) const;
  MaybeRefusal CheckMail(std::string_view parameters);
  MaybeRefusal CheckSize(std::string_view parameters);
  MaybeRefusal CheckRecipient() const;
  MaybeRefusal CheckGreylisting();

  LineDecision ProcessLine(std::string_view line);
  LineDecision ProcessAuthenticationData(std::string_view line);
  LineDecision ProcessRefusedSession(const Line& line);
  LineDecision ProcessHelo(const Line& line);
  LineDecision ProcessMail(const Line& line);
  LineDecision ProcessRcpt(const Line& line);
  LineDecision ProcessData(const Line& line);
  LineDecision ProcessBdat(const Line& line, std::uint64_t octets);
  LineDecision ProcessXexch50(const Line& line);
  LineDecision ProcessPolicy(const Line& line);

  std::string Replaced(const std::string& address, const ReplacementTable& table);
  // `line` with its first parameter, an octet count, as `octets`.
  static std::string WithCount(const Line& line, std::uint64_t octets);

  LineDecision Forward(const Line& line, std::string text, std::string extra = {});
  LineDecision ForwardAsIs(const Line& line);
  LineDecision Answer(const Refusal& refusal);
  LineDecision Break();
  static LineDecision Closing(LineDecision decision);
  LineDecision Complete(LineDecision decision);

  const Configuration& configuration_;
  const Clock& clock_;
  const SessionFacts& facts_;
  SessionState& state_;
  GreylistCheck* greylisting_;
  SessionMacros macros_;
  std::string waiting_line_;      // HELO or EHLO whose name is looked up
  std::optional<Error> failure_;  // of the line being looked at
};

}  // namespace trabex
