#include "proxy/dialogue/server_reply_filter.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "base/text.h"
#include "proxy/dialogue/received_header.h"
#include "proxy/dialogue/reply_code.h"
#include "proxy/dialogue/response_changes.h"

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

}  // namespace

ServerReplyFilter::ServerReplyFilter(const Configuration& configuration, const Clock& clock,
                                     const SessionFacts& facts)
    : configuration_(configuration), clock_(clock), facts_(facts) {}

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
    if (meant == "250") FollowAccepted(text, state, decision);
    refuses_message = forwarded.last_chunk && meant != "250";
  }
  if (decision.event == PhaseEvent::kContentWanted && state.requested.RecipientCount != 0 &&
      configuration_.AddReceived) {
    decision.header =
        GenerateReceivedHeader(configuration_, clock_, facts_, state.requested, state.login).append(kCrLf);
  }

  const SessionMacros macros(configuration_, clock_, facts_,
                             decision.requested ? *decision.requested : state.requested,
                             decision.offered ? *decision.offered : state.offered, state.BytesReceived);
  ApplyResponseChanges(code, decision.text, configuration_, macros);
  ApplyResponseChanges(std::string(forwarded.ForwardedVerb).append(".").append(code), decision.text,
                       configuration_, macros);
  // The reply's changes may still name the message's addresses; after it they are forgotten.
  if (refuses_message) (decision.requested = state.requested)->ResetTransaction();
  decision.text.append(kCrLf);
  return decision;
}

void ServerReplyFilter::FollowLogin(std::string_view meant, const DialogueState& state,
                                    ReplyDecision& decision) {
  const bool awaited = state.phase == Phase::kReply || state.phase == Phase::kAuthData;
  if (!awaited || decision.event == PhaseEvent::kAuthDataWanted) return;
  const bool accepted = meant == "235";
  decision.login = LoginState{state.login.ever || accepted, accepted};
}

void ServerReplyFilter::FollowAccepted(std::string_view reply, const DialogueState& state,
                                       ReplyDecision& decision) const {
  const Command command = state.forwarded.command;
  if (command != Command::kEhlo && command != Command::kHelo && command != Command::kRset) return;
  (decision.requested = state.requested)->ResetTransaction();
  if (command == Command::kEhlo) decision.text = RewriteEhloReply(reply, decision.offered.emplace());
  // The limit is ours as well, so it stays.
  if (command == Command::kHelo) decision.offered.emplace().SizeLimit = state.offered.SizeLimit;
}

std::string ServerReplyFilter::RewriteEhloReply(std::string_view reply, OfferedState& offered) const {
  const std::size_t first_end = std::min(reply.find(kCrLf), reply.size());
  const std::string_view first_line = reply.substr(0, first_end);
  offered.Extensions.ParseLines(reply.substr(first_end));
  for (std::string_view keyword : kNeverOffered) offered.Extensions.RemoveExtension(keyword);
  if (facts_.ServerTlsActive()) offered.Extensions.RemoveBoundAuthentication();
  // A message that asks for it (RFC 8689) must be under TLS all the way.
  const bool tls_in_use = facts_.TlsConfigured() || configuration_.TLS.Server != server_tls::kNone;
  if (tls_in_use && !(facts_.TlsActive() && facts_.ServerTlsActive())) {
    offered.Extensions.RemoveExtension("REQUIRETLS");
  }
  LimitSize(offered);
  const bool may_begin_tls = facts_.TlsReady() && !facts_.TlsActive();
  if (may_begin_tls) offered.Extensions.AddExtension(kStartTls);
  ApplyExtensionLists(offered);
  if (facts_.TlsConfigured()) WithholdByTls(offered);
  offered.TlsOffered = may_begin_tls && offered.Extensions.Has(kStartTls);

  const std::string_view greeting = first_line.substr(std::min<std::size_t>(4, first_line.size()));
  const auto& lines = offered.Extensions.Lines();
  if (lines.empty()) return std::string("250 ").append(greeting);
  std::string result = std::string("250-").append(greeting);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    result.append(kCrLf).append(i + 1 < lines.size() ? "250-" : "250 ").append(lines[i]);
  }
  return result;
}

void ServerReplyFilter::LimitSize(OfferedState& offered) const {
  const FixedPoint server = OfferedSize(offered.Extensions.GetExtension("SIZE"));
  // A fraction of a byte does not count.
  const FixedPoint own =
      configuration_.MaxSize - std::max<FixedPoint>(configuration_.MaxSize, 0) % kFixedPointOne;
  FixedPoint limit = 0;
  bool remove = false;
  if (server > 0) {
    if (own > 0) {
      limit = std::min(server, own);
    } else if (own == max_size::kAsServer) {
      limit = server;
    } else {
      remove = own != max_size::kNone;
    }
  } else {
    limit = std::max<FixedPoint>(own, 0);
    remove = limit == 0;
  }
  if (remove) offered.Extensions.RemoveExtension("SIZE");
  if (limit != 0) offered.Extensions.AddExtension("SIZE " + FormatWhole(limit));
  offered.SizeLimit = limit;
}

void ServerReplyFilter::WithholdByTls(OfferedState& offered) const {
  const bool active = facts_.TlsActive();
  // RFC 3207, 4.2: never under TLS.
  if (active || !facts_.TlsReady()) offered.Extensions.RemoveExtension(kStartTls);
  if (!active && AppliesToClient(configuration_.TLS.RequireForAUTH, facts_)) {
    offered.Extensions.RemoveAuthentication();
  }
}

void ServerReplyFilter::ApplyExtensionLists(OfferedState& offered) const {
  const bool local = facts_.IsLocalClient();
  const ExpressionList& removed =
      local ? configuration_.RemoveSMTPExtensionsLocal : configuration_.RemoveSMTPExtensionsRemote;
  const ExpressionList& added =
      local ? configuration_.AddSMTPExtensionsLocal : configuration_.AddSMTPExtensionsRemote;
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

}  // namespace trabex
