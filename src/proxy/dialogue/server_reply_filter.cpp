#include "proxy/dialogue/server_reply_filter.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <utility>

#include "base/text.h"
#include "proxy/dialogue/received_header.h"
#include "proxy/dialogue/response_changes.h"

namespace trabex {

namespace {

// Keywords that never reach a client: the filter could not read what they lead to, or the server would take
// the client's word for who it is.
constexpr std::string_view kNeverOffered[] = {"ATRN", "PIPELINING", "STARTTLS", "TURN",
                                              "OK",   "XCLIENT",    "XFORWARD"};

constexpr std::string_view kChunking = "CHUNKING";
constexpr std::string_view kSmtpUtf8 = "SMTPUTF8";

std::string_view CodeOf(std::string_view line) {
  return line.substr(0, 3);
}

std::string_view LastLine(std::string_view reply) {
  const std::size_t end = reply.rfind(kCrLf);
  return end == std::string_view::npos ? reply : reply.substr(end + kCrLf.size());
}

bool HasOneCode(std::string_view reply) {
  const std::string_view code = CodeOf(reply);
  while (!reply.empty()) {
    if (CodeOf(reply) != code) return false;
    const std::size_t end = reply.find(kCrLf);
    if (end == std::string_view::npos) return true;
    reply.remove_prefix(end + kCrLf.size());
  }
  return true;
}

// Whether `reply` says what its first code says: one with several codes says nothing that could be relied on.
// Between the first and the last line of a reply to EHLO, lines with another code are just no extensions.
bool CanBeReliedOn(std::string_view reply, Command command) {
  return command == Command::kEhlo ? CodeOf(LastLine(reply)) == CodeOf(reply) : HasOneCode(reply);
}

// The number in a SIZE extension line (RFC 1870); 0 when there is none to be read.
FixedPoint OfferedSize(std::string_view line) {
  constexpr std::string_view kSize = "SIZE ";
  if (!StartsWithNoCase(line, kSize)) return 0;
  const std::string_view digits = FirstWord(Trim(line.substr(kSize.size())));
  if (!std::all_of(digits.begin(), digits.end(), IsDigit)) return 0;
  return ParseFixedPoint(digits, 1).value_or(0);
}

}  // namespace

ServerReplyFilter::ServerReplyFilter(const Configuration& configuration, const Clock& clock,
                                     const SessionFacts& facts, SessionState& state)
    : configuration_(configuration),
      clock_(clock),
      facts_(facts),
      state_(state),
      macros_(configuration, clock, facts, state) {}

ReplyDecision ServerReplyFilter::ProcessOutgoingData(std::string_view reply) {
  const std::string_view text = reply.ends_with(kCrLf) ? reply.substr(0, reply.size() - kCrLf.size()) : reply;
  const std::string_view code = CodeOf(text);
  const bool answers_ehlo = state_.Expected == ReplyExpected::kCommand &&
                            state_.Forwarded == Command::kEhlo && code == "250" &&
                            CanBeReliedOn(text, Command::kEhlo);
  const bool refuses_message = AnswersLastChunk() && !(code == "250" && HasOneCode(text));
  ReplyDecision decision;
  FollowReply(code, text, decision);

  std::string changed = answers_ehlo ? RewriteEhloReply(text) : std::string(text);
  bool rewritten = answers_ehlo;
  rewritten |= ApplyResponseChanges(code, changed, configuration_, macros_);
  rewritten |= ApplyResponseChanges(std::string(state_.ForwardedVerb).append(".").append(code), changed,
                                    configuration_, macros_);
  // The refusal may still name the message's addresses, which nobody needs behind it.
  if (refuses_message) state_.ResetTransaction();
  decision.text = rewritten ? changed.append(kCrLf) : std::string(reply);
  return decision;
}

bool ServerReplyFilter::AnswersLastChunk() const {
  return state_.Expected == ReplyExpected::kCommand && state_.Forwarded == Command::kBdat && state_.LastChunk;
}

void ServerReplyFilter::FollowReply(std::string_view code, std::string_view reply, ReplyDecision& decision) {
  // Whatever the reply is: the server has taken the message or thrown it away.
  if (AnswersLastChunk()) state_.EndTransaction();
  const ReplyExpected expected = std::exchange(state_.Expected, ReplyExpected::kNone);
  if (state_.Content.EndsWithDot()) {
    // The server spoke before the dot: what the client goes on sending is neither content nor command any
    // more.
    state_.Content.Stop();
    decision.content_cut_off = true;
    return;
  }
  const bool asks_for_data = CodeOf(LastLine(reply)) == "334";
  // A server that speaks again instead of waiting for the data has given up, and reads commands.
  if (!asks_for_data) state_.AuthenticationData = false;
  if (expected != ReplyExpected::kCommand) return;
  if (state_.Forwarded == Command::kAuth && asks_for_data) {
    state_.AuthenticationData = true;
    return;
  }
  if (!CanBeReliedOn(reply, state_.Forwarded)) return;
  if (code == "250") FollowAccepted();
  if (code == "354") FollowContentWanted(decision);
  if (code == "355" && state_.Forwarded == Command::kMail) state_.TransactionOpen = true;
  // The server closes now; what the client still sends is for nobody.
  if (code == "221" && state_.Forwarded == Command::kQuit) {
    state_.Content.BeginDrop(std::numeric_limits<std::uint64_t>::max());
  }
}

void ServerReplyFilter::FollowAccepted() {
  switch (state_.Forwarded) {
    case Command::kMail:
    case Command::kSend:
    case Command::kSoml:
    case Command::kSaml:
      state_.TransactionOpen = true;
      break;
    case Command::kRset:
      state_.ResetTransaction();
      break;
    case Command::kHelo:
      state_.Extensions.Clear();
      state_.SmtpUtf8Offered = false;
      state_.GreetingDone = true;
      state_.ResetTransaction();
      break;
    case Command::kEhlo:
      state_.GreetingDone = true;
      state_.ResetTransaction();
      break;
    default:
      break;
  }
}

void ServerReplyFilter::FollowContentWanted(ReplyDecision& decision) {
  if (state_.Forwarded == Command::kXexch50) {
    state_.Content.BeginOctets(state_.AnnouncedOctets);
    state_.Expected = ReplyExpected::kContent;
  }
  if (state_.Forwarded != Command::kData) return;
  state_.EndTransaction();
  state_.Content.BeginDot();
  state_.Expected = ReplyExpected::kContent;
  if (state_.RecipientCount != 0 && configuration_.AddReceived) {
    decision.header = GenerateReceivedHeader(configuration_, clock_, facts_, state_).append(kCrLf);
  }
}

std::string ServerReplyFilter::RewriteEhloReply(std::string_view reply) {
  const std::size_t first_end = std::min(reply.find(kCrLf), reply.size());
  const std::string_view first_line = reply.substr(0, first_end);
  state_.Extensions.Clear();
  state_.Extensions.ParseLines(reply.substr(first_end));
  for (std::string_view keyword : kNeverOffered) state_.Extensions.RemoveExtension(keyword);
  LimitSize();
  ApplyExtensionLists();

  const std::string_view greeting = first_line.substr(std::min<std::size_t>(4, first_line.size()));
  const auto& lines = state_.Extensions.Lines();
  if (lines.empty()) return std::string("250 ").append(greeting);
  std::string result = std::string("250-").append(greeting);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    result.append(kCrLf).append(i + 1 < lines.size() ? "250-" : "250 ").append(lines[i]);
  }
  return result;
}

void ServerReplyFilter::LimitSize() {
  const FixedPoint server = OfferedSize(state_.Extensions.GetExtension("SIZE"));
  // A fraction of a byte is none.
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
  if (remove) state_.Extensions.RemoveExtension("SIZE");
  if (limit != 0) state_.Extensions.AddExtension("SIZE " + FormatWhole(limit));
  state_.SizeLimit = limit;
}

void ServerReplyFilter::ApplyExtensionLists() {
  const bool local = facts_.IsLocalClient();
  const ExpressionList& removed =
      local ? configuration_.RemoveSMTPExtensionsLocal : configuration_.RemoveSMTPExtensionsRemote;
  const ExpressionList& added =
      local ? configuration_.AddSMTPExtensionsLocal : configuration_.AddSMTPExtensionsRemote;
  // The octets of a BDAT follow it without waiting for an answer (RFC 3030): a server that does not know the
  // command would read them as commands. So it cannot be offered on the server's behalf.
  const bool server_takes_chunks = state_.Extensions.Has(kChunking);
  for (const ListEntry& entry : removed.Entries()) {
    for (const std::string& keyword : entry.patterns) state_.Extensions.RemoveExtension(FirstWord(keyword));
  }
  // What is added is our word, not the server's.
  state_.SmtpUtf8Offered = state_.Extensions.Has(kSmtpUtf8);
  for (const ListEntry& entry : added.Entries()) {
    for (const std::string& line : entry.patterns) {
      if (server_takes_chunks || !EqualNoCase(FirstWord(line), kChunking))
        state_.Extensions.AddExtension(line);
    }
  }
}

}  // namespace trabex
