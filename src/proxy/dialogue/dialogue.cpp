#include "proxy/dialogue/dialogue.h"

#include <algorithm>
#include <utility>

#include "base/text.h"
#include "proxy/dialogue/message_size.h"
#include "proxy/dialogue/reply_code.h"

namespace trabex {

using Side = DialogueActions::Side;

constexpr std::string_view kInvalidHeader = "Invalid PROXY header. Closing connection.";

Dialogue::Dialogue(const Configuration& configuration, const Clock& clock, const SessionFacts& facts,
                   GreylistCheck* greylisting, DialogueState state, DecisionTrace* trace)
    : configuration_(configuration),
      facts_(facts),
      commands_(configuration, clock, facts, greylisting, trace),
      replies_(configuration, clock, facts, trace),
      state_(std::move(state)) {}

// --- the client's side

std::size_t Dialogue::OnClientBytes(std::string_view bytes, DialogueActions& actions) {
  switch (Expected()) {
    case ClientBytes::kLine:
      return TakeLine(bytes, actions);
    case ClientBytes::kContent:
    case ClientBytes::kDiscarded:
      return TakeContent(bytes, actions);
    case ClientBytes::kHeader:
      return TakeHeader(bytes, actions);
    case ClientBytes::kWait:
      break;
  }
  return 0;
}

std::size_t Dialogue::TakeHeader(std::string_view bytes, DialogueActions& actions) {
  if (!bytes.empty()) state_.header_begun = true;
  const ProxyHeader header = ParseProxyHeader(bytes);
  if (header.state == ProxyHeader::State::kBad) {
    actions.Log(Side::kClient, log_level::kErrors, kInvalidHeader);
    Enter(PhaseEvent::kEnd);
  }
  if (header.state != ProxyHeader::State::kWhole) return 0;
  actions.ClientIs(header.connection);
  const auto& connection = header.connection;
  actions.Log(Side::kClient, log_level::kConnection,
              connection ? "PROXY header: " + FormatEndpoint(connection->client) + " to " +
                               FormatEndpoint(connection->called) + "."
                         : "PROXY header: local.");
  Enter(PhaseEvent::kHeaderTaken);
  return header.size;
}

// One that closes before its first byte has looked whether we are there.
std::string_view Dialogue::LostWithClient() const {
  return state_.phase == Phase::kProxyHeader && state_.header_begun ? kInvalidHeader : std::string_view();
}

std::size_t Dialogue::TakeLine(std::string_view bytes, DialogueActions& actions) {
  const std::size_t line_end = bytes.find(kCrLf);
  const bool whole = line_end != std::string_view::npos;
  const std::string_view line = whole ? bytes.substr(0, line_end + kCrLf.size()) : bytes;
  const bool logged = (configuration_.LogLevelRemote & log_level::kReceived) != 0;
  if (ClientCommandFilter::IsTooLong(line, whole, state_.phase)) {
    if (logged) {
      const std::string_view begin = bytes.substr(0, ClientCommandFilter::kMaxLine);
      std::string hidden;
      actions.Log(Side::kClient, log_level::kReceived,
                  std::string(commands_.LoggedForm(begin, state_.phase, hidden)) + "...");
    }
    Say(ReplyKind::kLineTooLong, actions);
    return 0;
  }
  if (!whole) return 0;
  state_.BytesReceived += std::ssize(line);
  if (logged) {
    std::string hidden;
    actions.Log(Side::kClient, log_level::kReceived, commands_.LoggedForm(line, state_.phase, hidden));
  }
  if (state_.phase != Phase::kAuthData) actions.OnCommand();
  LineDecision decision = commands_.ProcessIncomingData(line, state_);
  if (decision.action == LineDecision::Action::kAskForAddresses) state_.asking_line.Assign(line);
  // What follows STARTTLS in the clear may come from somebody between the client and us, and would count as
  // the client's under TLS.
  if (decision.action == LineDecision::Action::kStartTls && bytes.size() > line.size()) {
    state_.requested = std::move(decision.requested);
    Say(ReplyKind::kTlsDataBehind, actions);
    return line.size();
  }
  Act(std::move(decision), actions);
  return line.size();
}

std::size_t Dialogue::TakeContent(std::string_view bytes, DialogueActions& actions) {
  if (bytes.empty()) return 0;
  ContentTracker::Step step{bytes.size(), ContentTracker::Outcome::kGoesOn};
  if (state_.phase != Phase::kFarewell) step = state_.content.Scan(bytes);
  state_.BytesReceived += static_cast<std::int64_t>(step.bytes);
  const bool ended = step.outcome == ContentTracker::Outcome::kEnded;
  // What is thrown away because its BDAT was refused belongs to no message.
  if (state_.phase != Phase::kDiscard) state_.content_octets += step.bytes;
  const bool measured = configuration_.Service.EnforceMaxSize && state_.phase == Phase::kDotContent;
  if (measured && IsTooLarge(MessageOctets(ended), configuration_, state_.offered)) {
    Enter(PhaseEvent::kSizeExceeded);
    BreakOffMessage(actions);
  }
  if (step.bytes > 0 && Expected() == ClientBytes::kContent) {
    if (state_.phase == Phase::kDotContent || state_.phase == Phase::kChunk) actions.OnContent(step.bytes);
    actions.ToServer(bytes.substr(0, step.bytes), false);
  }
  if (ended && state_.phase == Phase::kTooLarge) {
    RefuseSize(actions);
  } else if (ended) {
    Enter(PhaseEvent::kContentComplete);
  }
  if (step.outcome == ContentTracker::Outcome::kAmbiguous) {
    actions.CloseServer();
    Say(ReplyKind::kDataAmbiguousEnd, actions);
  }
  return step.bytes;
}

std::uint64_t Dialogue::MessageOctets(bool ended) const {
  if (state_.content.IsCounted()) return state_.content_octets;
  constexpr std::uint64_t kLastLine = 3;
  return state_.content_octets - (ended ? kLastLine : state_.content.EndsInDot() ? 1 : 0);
}

void Dialogue::BreakOffMessage(DialogueActions& actions) {
  actions.Log(Side::kServer, log_level::kErrors, "Message too large. Closing connection.");
  actions.CloseServer();
  actions.GoOnWithoutServer();
}

void Dialogue::RefuseSize(DialogueActions& actions) {
  // The reply names the size that the message has, whatever was declared.
  state_.requested.DeclaredSize = static_cast<FixedPoint>(MessageOctets(true)) * kFixedPointOne;
  state_.offered.SizeLimit = MessageSizeLimit(configuration_, state_.offered);
  Say(ReplyKind::kMailSize, actions);
}

// As TakeContent does with bytes that it sees.
void Dialogue::OnOctetsPassed(std::size_t count, DialogueActions& actions) {
  const ContentTracker::Step step = state_.content.PassOctets(count);
  state_.BytesReceived += static_cast<std::int64_t>(count);
  state_.content_octets += count;
  if (state_.phase == Phase::kChunk) actions.OnContent(count);
  if (step.outcome == ContentTracker::Outcome::kEnded) Enter(PhaseEvent::kContentComplete);
}

void Dialogue::Act(LineDecision&& decision, DialogueActions& actions) {
  if (decision.failure) actions.LogFailure(*decision.failure);
  state_.requested = std::move(decision.requested);
  if (decision.greylisting) {
    const bool callback = decision.greylisting->deferred && !decision.refusal;
    actions.OnGreylisting(*decision.greylisting, callback, state_.requested);
  }
  if (decision.refusal) {
    const Refusal& refusal = *decision.refusal;
    const bool sent = decision.action == LineDecision::Action::kAnswer;
    actions.OnOwnReply({.kind = refusal.kind,
                        .key = refusal.key,
                        .text = sent ? std::string_view(decision.text) : std::string_view(),
                        .requested = state_.requested,
                        .list = refusal.list,
                        .sent = sent,
                        .ends = decision.end});
  }
  switch (decision.action) {
    case LineDecision::Action::kForward:
      Forward(decision, actions);
      break;
    case LineDecision::Action::kAnswer:
      actions.ToClient(decision.text.append(kCrLf));
      if (decision.end) {
        Enter(PhaseEvent::kEnd);
      } else if (decision.octets_follow) {
        EnterOctets(PhaseEvent::kBdatAnswered, *decision.octets_follow);
      } else {
        Enter(PhaseEvent::kAnswered);
      }
      break;
    case LineDecision::Action::kAskForAddresses:
      Enter(PhaseEvent::kAsked);
      actions.AskForAddresses(decision.text);
      break;
    case LineDecision::Action::kBreak:
      actions.Log(Side::kClient, log_level::kErrors, decision.text);
      Enter(PhaseEvent::kEnd);
      break;
    case LineDecision::Action::kStartTls:
      state_.BeginAnew();
      Enter(PhaseEvent::kTlsBegins);
      actions.StartTls(decision.text.append(kCrLf));
      break;
    case LineDecision::Action::kRefuseSize:
      if (state_.transaction != Transaction::kChunks) state_.content_octets = 0;
      EnterOctets(PhaseEvent::kSizeExceeded, *decision.octets_follow);
      BreakOffMessage(actions);
      if (*decision.octets_follow == 0) RefuseSize(actions);
      break;
  }
  if (decision.too_many_bad_sequences && state_.phase != Phase::kEnding) actions.EndAfterPause();
}

void Dialogue::Forward(LineDecision& decision, DialogueActions& actions) {
  if (decision.forwarded) state_.forwarded = std::move(*decision.forwarded);
  if (decision.octets_follow) {
    if (state_.transaction != Transaction::kChunks) state_.content_octets = 0;
    EnterOctets(PhaseEvent::kBdatForwarded, *decision.octets_follow);
  } else {
    Enter(PhaseEvent::kForwarded);
  }
  actions.Log(Side::kServer, log_level::kSent, decision.logged.empty() ? decision.text : decision.logged);
  actions.ToServer(decision.text, false);
}

void Dialogue::OnAddresses(const HostAddresses& answer, DialogueActions& actions) {
  if (state_.phase != Phase::kAsking) return;
  Act(commands_.ProcessAddresses(state_.asking_line.Take(), answer, state_), actions);
}

// --- the server's side

void Dialogue::OnServerBytes(std::string bytes, DialogueActions& actions) {
  // Its greeting was a refusal, and it owes no reply.
  if (state_.transaction == Transaction::kRefused) return;
  assembler_.Append(std::move(bytes));
  if (preface_) return TakePrefaceBytes(actions);
  RelayReplies(actions);
  if (!assembler_.TooLong()) return;
  // Relayed in parts, unchanged, unless it may offer extensions; its last line decides what it means.
  const bool is_ehlo_reply = state_.phase == Phase::kReply && state_.forwarded.command == Command::kEhlo;
  if (!is_ehlo_reply && !IsUnasked(state_.phase) && RelayWholeLines(actions)) return;
  actions.Log(Side::kServer, log_level::kErrors, "Reply too long. Closing connection.");
  EndWithoutServer(actions);
}

void Dialogue::OnServerEnd(ServerEnd how, DialogueActions& actions) {
  if (preface_) {
    return how == ServerEnd::kFailed ? EndWithoutServer(actions) : RefuseServer("connection closed", actions);
  }
  if (state_.transaction == Transaction::kRefused) return Enter(PhaseEvent::kEnd);
  assembler_.EndLine();
  RelayReplies(actions);
  RelayWholeLines(actions);
  if (how == ServerEnd::kFailed) return EndWithoutServer(actions);
  Enter(PhaseEvent::kEnd);
}

bool Dialogue::AwaitsServer() const {
  return preface_ ? preface_->AwaitsServer() : trabex::AwaitsServer(state_.phase);
}

bool Dialogue::AwaitsReplyToContent() const {
  return state_.phase == Phase::kContentReply ||
         (state_.phase == Phase::kReply && state_.forwarded.last_chunk);
}

void Dialogue::OnServerSilent(DialogueActions& actions) {
  actions.Log(Side::kServer, log_level::kErrors, "Server time-out. Closing connection.");
  const bool quits = state_.phase == Phase::kReply && state_.forwarded.command == Command::kQuit;
  if (!quits && state_.phase != Phase::kFarewell) return EndWithoutServer(actions);
  actions.CloseServer();
  Enter(PhaseEvent::kEnd);
}

void Dialogue::OnServerConnected(ServerApproach approach, DialogueActions& actions) {
  if (!approach.header.empty()) {
    actions.Log(Side::kServer, log_level::kSent, approach.logged_header);
    actions.ToServer(approach.header, false);
  }
  if (!approach.preface.IsNeeded()) return;
  preface_ = std::make_unique<ServerPreface>(std::move(approach.preface));
  Enter(PhaseEvent::kPrefaceBegins);
  Follow(preface_->Begin(), actions);
}

void Dialogue::OnServerSecured(DialogueActions& actions) {
  if (preface_) Follow(preface_->OnSecured(), actions);
}

void Dialogue::OnClientNames(const ProxiedConnection& connection, const ClientNames& names,
                             DialogueActions& actions) {
  if (preface_) Follow(preface_->OnNames(connection, names), actions);
}

void Dialogue::TakePrefaceBytes(DialogueActions& actions) {
  const auto reply = assembler_.NextReply();
  if (reply) {
    actions.Log(Side::kServer, log_level::kReceived, *reply);
    if (reply->starts_with("250")) state_.earlier_ehlo_reply = *reply;
    Follow(preface_->OnReply(*reply, !assembler_.IsEmpty()), actions);
  } else if (assembler_.TooLong() || !preface_->AwaitsReply()) {
    Follow(ServerPreface::OnNonsense(), actions);
  }
}

void Dialogue::Follow(const ServerPreface::Step& step, DialogueActions& actions) {
  using Kind = ServerPreface::Step::Kind;
  switch (step.kind) {
    case Kind::kSend:
      actions.Log(Side::kServer, log_level::kSent, step.text);
      actions.ToServer(step.text, false);
      break;
    case Kind::kStartTls:
      state_.earlier_ehlo_reply.clear();
      actions.StartServerTls();
      break;
    case Kind::kAskForNames:
      actions.AskForClientNames();
      break;
    case Kind::kWait:
      break;
    case Kind::kGoOn:
      Enter(PhaseEvent::kPrefaceOver);
      preface_.reset();
      break;
    case Kind::kGreet:
      Enter(PhaseEvent::kPrefaceOver);
      actions.OnServerReply(Command::kOther, step.text);
      RelayReply(step.text, actions);
      if (step.without_server) {
        state_.transaction = Transaction::kRefused;
        actions.GoOnWithoutServer();
      }
      preface_.reset();
      break;
    case Kind::kRefuse:
      RefuseServer(step.text, actions);
      break;
  }
}

void Dialogue::RefuseServer(std::string_view reason, DialogueActions& actions) {
  actions.Log(Side::kServer, log_level::kErrors,
              std::string("No session with this server: ").append(reason).append(". Closing connection."));
  EndWithoutServer(actions);
}

void Dialogue::RelayReplies(DialogueActions& actions) {
  while (auto reply = assembler_.NextReply()) {
    actions.Log(Side::kServer, log_level::kReceived, *reply);
    actions.OnServerReply(state_.forwarded.command, *reply);
    RelayReply(ReplyThatCounts(std::move(*reply)), actions);
  }
}

std::string Dialogue::ReplyThatCounts(std::string reply) {
  if (state_.phase != Phase::kReply || state_.forwarded.command != Command::kEhlo) return reply;
  std::string& earlier = state_.earlier_ehlo_reply;
  const std::string_view text = WithoutLineEnd(reply);
  const std::string_view code = CodeOf(LastLine(text)) == CodeOf(text) ? CodeOf(text) : "";
  if (code == "250") {
    // STARTTLS may follow.
    earlier = facts_.TlsReady() && !facts_.TlsActive() ? reply : "";
  } else if (code == "503" && state_.transaction == Transaction::kNoGreeting && !earlier.empty()) {
    reply = earlier;
  }
  return reply;
}

// What a reply means for those who count and record, before anything of it is forgotten.
void Dialogue::TellOf(std::string_view reply, const ReplyDecision& decision, DialogueActions& actions) const {
  const ForwardedCommand& forwarded = state_.forwarded;
  const char first = reply.empty() ? ' ' : reply.front();
  const bool owed = state_.phase == Phase::kReply || state_.phase == Phase::kContentReply;
  if (!owed) return;
  if (state_.phase == Phase::kContentReply) {
    if (forwarded.command == Command::kData) actions.OnMessage(reply);
  } else if (forwarded.command == Command::kRcpt) {
    if (first == '2') actions.OnRecipient(RecipientResult::kAccepted, state_.requested.Recipient);
    if (first == '4') actions.OnRecipient(RecipientResult::kServerDeferred, state_.requested.Recipient);
    if (first == '5') actions.OnRecipient(RecipientResult::kServerRefused, state_.requested.Recipient);
  } else if (forwarded.command == Command::kBdat) {
    if (forwarded.last_chunk) actions.OnMessage(reply);
  } else if (decision.transaction == Transaction::kOpen && state_.transaction != Transaction::kOpen &&
             state_.transaction != Transaction::kChunks) {
    actions.OnTransaction(state_.requested);
  }
}

void Dialogue::RelayReply(std::string_view reply, DialogueActions& actions) {
  ReplyDecision decision = replies_.ProcessOutgoingData(reply, state_);
  TellOf(reply, decision, actions);
  if (decision.requested) state_.requested = std::move(*decision.requested);
  if (decision.offered) state_.offered = std::move(*decision.offered);
  if (decision.login) state_.login = *decision.login;
  state_.transaction = decision.transaction;
  actions.ToClient(decision.text);
  if (decision.event == PhaseEvent::kOctetsWanted) {
    EnterOctets(decision.event, state_.forwarded.octets);
  } else {
    Enter(decision.event);
  }
  // The client's next bytes are the content. When the header cannot be sent, the server is gone, and the
  // client learns that after this reply.
  if (!decision.header.empty()) actions.ToServer(decision.header, true);
}

// Relays the whole lines of a reply whose end has not come; false when there are none.
bool Dialogue::RelayWholeLines(DialogueActions& actions) {
  const std::string lines = assembler_.TakeWholeLines();
  if (lines.empty()) return false;
  actions.Log(Side::kServer, log_level::kReceived, lines);
  actions.ToClient(lines);
  return true;
}

// Tells the client that the server is gone, and ends the session.
void Dialogue::EndWithoutServer(DialogueActions& actions) {
  preface_.reset();
  std::string reply = commands_.BuildReply(ReplyKind::kServerError, state_);
  TellOfOwn(ReplyKind::kServerError, reply, {}, true, true, actions);
  actions.ToClient(reply.append(kCrLf));
  actions.CloseServer();
  Enter(PhaseEvent::kEnd);
}

void Dialogue::TellOfOwn(ReplyKind kind, std::string_view reply, const DecidingList& list, bool sent,
                         bool ends, DialogueActions& actions) const {
  actions.OnOwnReply({.kind = kind,
                      .key = FindPolicyReply(kind).key,
                      .text = reply,
                      .requested = state_.requested,
                      .list = list,
                      .sent = sent,
                      .ends = ends});
}

bool Dialogue::MaySpeak() const {
  // A balancer that has not said whose connection it is gets no word.
  return state_.phase != Phase::kProxyHeader && state_.phase != Phase::kTls &&
         state_.phase != Phase::kStartTls && state_.phase != Phase::kEnding;
}

void Dialogue::Say(ReplyKind kind, DialogueActions& actions, const DecidingList& list) {
  if (state_.phase == Phase::kProxyHeader) return Enter(PhaseEvent::kEnd);
  std::string reply = commands_.BuildReply(kind, state_);
  const bool readable = state_.phase != Phase::kTls && state_.phase != Phase::kStartTls;
  const bool ends = FindPolicyReply(kind).after != AfterReply::kProxyOnly;
  TellOfOwn(kind, reply, list, readable, ends, actions);
  if (!readable) {
    actions.Log(Side::kClient, log_level::kErrors, "Refused without TLS: " + reply);
    return Enter(PhaseEvent::kEnd);
  }
  actions.ToClient(reply.append(kCrLf));
  if (ends) return Enter(PhaseEvent::kEnd);
  state_.transaction = Transaction::kRefused;
  Enter(PhaseEvent::kNoServer);
}

// --- the state

void Dialogue::Enter(PhaseEvent event) {
  state_.phase = NextPhase(state_.phase, event);
  if (state_.phase != Phase::kDotContent) return;
  state_.content.BeginDot();
  state_.content_octets = 0;
}

void Dialogue::EnterOctets(PhaseEvent event, std::uint64_t octets) {
  Enter(event);
  state_.content.BeginOctets(octets);
  if (octets == 0) Enter(PhaseEvent::kContentComplete);
}

}  // namespace trabex
