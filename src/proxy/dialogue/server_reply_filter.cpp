#include "proxy/dialogue/server_reply_filter.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "base/text.h"
#include "proxy/dialogue/received_header.h"
#include "proxy/dialogue/reply_code.h"
#include "proxy/dialogue/response_changes.h"
#include "proxy/dialogue/session_macros.h"

namespace trabex {

namespace {

// Keywords that never reach a client: the filter could not read what they lead to, or the server would take
// the client's word for who it is.
constexpr std::string_view kNeverOffered[] = {"ATRN", "PIPELINING", "STARTTLS", "TURN",
                                              "OK",   "XCLIENT",    "XFORWARD"};

constexpr std::string_view kChunking = "CHUNKING";
constexpr std::string_view kSmtpUtf8 = "SMTPUTF8";
constexpr std::string_view kStartTls = "STARTTLS";

// Whether the code of `reply` counts: a reply of several lines counts only if all of them have one code, for
// EHLO the first and the last; its lines with another code between them are no extensions.
bool CanBeReliedOn(std::string_view reply, Command command) {
  return command == Command::kEhlo ? CodeOf(LastLine(reply)) == CodeOf(reply) : HasOneCode(reply);
}

// Whether a client may take a reply that nobody asked for as that to its EHLO, and believe that the server offers what
// stands in it.
bool MayPassForEhloReply(std::string_view reply, Phase phase) {
  return IsUnasked(phase) && LastLine(reply) != reply && CodeOf(reply) == "250" &&
         CanBeReliedOn(reply, Command::kEhlo);
}

// `meant` is the code, "" when it does not count.
PhaseEvent EventOf(std::string_view reply, std::string_view meant, const DialogueState& state) {
  const Command command = state.forwarded.command;
  // A second 334 before the data has come asks for the same data.
  const bool may_ask_for_data =
      state.phase == Phase::kAuthData || (state.phase == Phase::kReply && command == Command::kAuth);
  if (may_ask_for_data && CodeOf(LastLine(reply)) == "334") return PhaseEvent::kAuthDataWanted;
  if (state.phase != Phase::kReply) return PhaseEvent::kReply;
  if (command == Command::kData && meant == "354") return PhaseEvent::kContentWanted;
  if (command == Command::kXexch50 && meant == "354") return PhaseEvent::kOctetsWanted;
  if (command == Command::kQuit && meant == "221") return PhaseEvent::kQuitAccepted;
  return PhaseEvent::kReply;
}

// The number in a SIZE extension line (RFC 1870); 0 without a readable one.
FixedPoint OfferedSize(std::string_view line) {
  const std::string text = ReplaceAll(line, "\t", " ");
  constexpr std::string_view kSize = "SIZE ";
  const std::string_view words = Trim(text);
  if (!StartsWithNoCase(words, kSize)) return 0;
  const std::string_view digits = FirstWord(Trim(words.substr(kSize.size())));
  if (!std::all_of(digits.begin(), digits.end(), IsDigit)) return 0;
  return ParseFixedPoint(digits, 1).value_or(0);
}

void LimitSize(FixedPoint setting, OfferedState& offered) {
  const FixedPoint server = OfferedSize(offered.Extensions.GetExtension("SIZE"));
  // A fraction of a byte does not count.
  const FixedPoint own = setting - std::max<FixedPoint>(setting, 0) % kFixedPointOne;
  FixedPoint limit = own == max_size::kAsServer ? server : std::max<FixedPoint>(own, 0);
  if (server > 0) limit = std::min(server, limit);
  if (limit != 0) {
    offered.Extensions.AddExtension("SIZE " + FormatWhole(limit));
  } else if (server == 0 || own != max_size::kNone) {
    offered.Extensions.RemoveExtension("SIZE");
  }
  offered.SizeLimit = limit;
}

void ApplyExtensionLists(const Configuration& configuration, bool local, OfferedState& offered) {
  const ExpressionList& removed =
      local ? configuration.RemoveSMTPExtensionsLocal : configuration.RemoveSMTPExtensionsRemote;
  const ExpressionList& added =
      local ? configuration.AddSMTPExtensionsLocal : configuration.AddSMTPExtensionsRemote;
  // The octets of a BDAT follow it without waiting for an answer (RFC 3030): a server that does not know the
  // command would read them as commands. So it cannot be offered on the server's behalf.
  const bool server_takes_chunks = offered.Extensions.Has(kChunking);
  for (const ListEntry& entry : removed.Entries()) {
    for (const std::string& keyword : entry.patterns) offered.Extensions.RemoveExtension(FirstWord(keyword));
  }
  // What is added is our word, not the server's.
  offered.SmtpUtf8Offered = offered.Extensions.Has(kSmtpUtf8);
  for (const ListEntry& entry : added.Entries()) {
    for (const std::string& line : entry.patterns) {
      if (server_takes_chunks || !EqualNoCase(FirstWord(line), kChunking))
        offered.Extensions.AddExtension(line);
    }
  }
}

// What no list may bring back, because it would not work, or because the settings withhold it.
void WithholdByTls(const Configuration& configuration, const SessionFacts& facts, OfferedState& offered) {
  const bool active = facts.TlsActive();
  // RFC 3207, 4.2: never under TLS.
  if (active || !facts.TlsReady()) offered.Extensions.RemoveExtension(kStartTls);
  if (!active && AppliesToClient(configuration.TLS.RequireForAUTH, facts)) {
    offered.Extensions.RemoveAuthentication();
  }
}

// The reply to EHLO as the client shall see it, without the last CR LF; sets what it offers.
std::string RewriteEhloReply(std::string_view reply, const Configuration& configuration,
                             const SessionFacts& facts, OfferedState& offered) {
  const std::size_t first_end = std::min(reply.find(kCrLf), reply.size());
  const std::string_view first_line = reply.substr(0, first_end);
  offered.Extensions.ParseLines(reply.substr(first_end));
  for (std::string_view keyword : kNeverOffered) offered.Extensions.RemoveExtension(keyword);
  if (facts.ServerTlsActive()) offered.Extensions.RemoveBoundAuthentication();
  // A message that asks for it (RFC 8689) must be under TLS all the way.
  const bool tls_in_use = facts.TlsConfigured() || configuration.TLS.Server != server_tls::kNone;
  if (tls_in_use && !(facts.TlsActive() && facts.ServerTlsActive())) {
    offered.Extensions.RemoveExtension("REQUIRETLS");
  }
  LimitSize(configuration.MaxSize, offered);
  const bool may_begin_tls = facts.TlsReady() && !facts.TlsActive();
  if (may_begin_tls) offered.Extensions.AddExtension(kStartTls);
  ApplyExtensionLists(configuration, facts.IsLocalClient(), offered);
  // A session keeps its TLS when the certificate goes from the settings.
  if (facts.TlsConfigured() || facts.TlsActive()) WithholdByTls(configuration, facts, offered);
  offered.TlsOffered = may_begin_tls && offered.Extensions.Has(kStartTls);

  const std::string_view greeting = first_line.substr(std::min<std::size_t>(4, first_line.size()));
  const auto lines = offered.Extensions.Lines();
  if (lines.empty()) return std::string("250 ").append(greeting);
  std::string result = std::string("250-").append(greeting);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    result.append(kCrLf).append(i + 1 < lines.size() ? "250-" : "250 ").append(lines[i]);
  }
  return result;
}

// What a reply to AUTH, or to its data, with the code `meant` makes of the login.
void FollowLogin(std::string_view meant, const DialogueState& state, ReplyDecision& decision) {
  const bool awaited = state.phase == Phase::kReply || state.phase == Phase::kAuthData;
  if (!awaited || decision.event == PhaseEvent::kAuthDataWanted) return;
  const bool accepted = meant == "235";
  decision.login = LoginState{state.login.ever || accepted, accepted};
}

// The state after an accepted greeting or RSET, and what the client sees of the reply.
void FollowAccepted(std::string_view reply, const Configuration& configuration, const SessionFacts& facts,
                    const DialogueState& state, ReplyDecision& decision) {
  const Command command = state.forwarded.command;
  if (command != Command::kEhlo && command != Command::kHelo && command != Command::kRset) return;
  (decision.requested = state.requested)->ResetTransaction();
  if (command == Command::kEhlo)
    decision.text = RewriteEhloReply(reply, configuration, facts, decision.offered.emplace());
  // The limit is ours as well, so it stays.
  if (command == Command::kHelo) decision.offered.emplace().SizeLimit = state.offered.SizeLimit;
}

}  // namespace

ServerReplyFilter::ServerReplyFilter(const Configuration& configuration, const Clock& clock,
                                     const SessionFacts& facts, DecisionTrace* trace)
    : configuration_(configuration), clock_(clock), facts_(facts), trace_(trace) {}

ReplyDecision ServerReplyFilter::ProcessOutgoingData(std::string_view reply,
                                                     const DialogueState& state) const {
  const std::string_view text = WithoutLineEnd(reply);
  const std::string_view code = CodeOf(text);
  const ForwardedCommand& forwarded = state.forwarded;
  const std::string_view meant = CanBeReliedOn(text, forwarded.command) ? code : "";
  ReplyDecision decision;
  decision.event = EventOf(text, meant, state);
  decision.transaction = state.transaction;
  decision.text = text;
  if (forwarded.command == Command::kAuth) FollowLogin(meant, state, decision);
  bool refuses_message = false;
  if (state.phase == Phase::kReply || state.phase == Phase::kChunk) {
    decision.transaction = NextTransaction(state.transaction, forwarded.command, forwarded.last_chunk, meant);
    if (meant == "250") FollowAccepted(text, configuration_, facts_, state, decision);
    refuses_message = forwarded.last_chunk && meant != "250";
  } else if (MayPassForEhloReply(text, state.phase)) {
    OfferedState unused;
    decision.text = RewriteEhloReply(text, configuration_, facts_, unused);
  }
  if (decision.event == PhaseEvent::kContentWanted && state.requested.RecipientCount != 0 &&
      configuration_.AddReceived) {
    decision.header =
        GenerateReceivedHeader(configuration_, clock_, facts_, state.requested, state.login).append(kCrLf);
  }

  const SessionMacros macros(configuration_, clock_, facts_,
                             decision.requested ? *decision.requested : state.requested,
                             decision.offered ? *decision.offered : state.offered, state.BytesReceived);
  ApplyResponseChanges(code, decision.text, configuration_, macros, trace_);
  ApplyResponseChanges(std::string(forwarded.ForwardedVerb).append(".").append(code), decision.text,
                       configuration_, macros, trace_);
  // The reply's changes may still name the message's addresses; after it they are forgotten.
  if (refuses_message) (decision.requested = state.requested)->ResetTransaction();
  decision.text.append(kCrLf);
  return decision;
}

}  // namespace trabex
