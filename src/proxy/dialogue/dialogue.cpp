#include "proxy/dialogue/dialogue.h"

#include <algorithm>
#include <utility>

#include "base/text.h"

namespace trabex {

using Side = DialogueActions::Side;

Dialogue::Dialogue(const Configuration& configuration, const Clock& clock, const SessionFacts& facts,
                   GreylistCheck* greylisting, DialogueState state)
    : configuration_(configuration),
      commands_(configuration, clock, facts, greylisting),
      replies_(configuration, clock, facts),
      state_(std::move(state)) {}

// --- the client's side

std::size_t Dialogue::OnClientBytes(std::string_view bytes, DialogueActions& actions) {
  switch (Expected()) {
    case ClientBytes::kLine:
      return TakeLine(bytes, actions);
    case ClientBytes::kContent:
    case ClientBytes::kDiscarded:
      return TakeContent(bytes, actions);
    case ClientBytes::kWait:
      break;
  }
  return 0;
}

std::size_t Dialogue::TakeLine(std::string_view bytes, DialogueActions& actions) {
  const std::size_t line_end = bytes.find(kCrLf);
  const bool whole = line_end != std::string_view::npos;
  const std::string_view line = whole ? bytes.substr(0, line_end + kCrLf.size()) : bytes;
  const bool logged = (configuration_.LogLevelRemote & log_level::kReceived) != 0;
  if (ClientCommandFilter::IsTooLong(line, whole, state_.phase)) {
    if (logged) {
      const std::string_view begin = bytes.substr(0, ClientCommandFilter::kMaxLine);
      actions.Log(Side::kClient, log_level::kReceived, commands_.LoggedForm(begin, state_.phase) + "...");
    }
    Say(ReplyKind::kLineTooLong, actions);
    return 0;
  }
  if (!whole) return 0;
  state_.BytesReceived += std::ssize(line);
  if (logged) actions.Log(Side::kClient, log_level::kReceived, commands_.LoggedForm(line, state_.phase));
  LineDecision decision = commands_.ProcessIncomingData(line, state_);
  if (decision.action == LineDecision::Action::kAskForAddresses) state_.asking_line = line;
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
  if (step.bytes > 0 && Expected() == ClientBytes::kContent) {
    actions.ToServer(bytes.substr(0, step.bytes), false);
  }
  if (step.outcome == ContentTracker::Outcome::kEnded) Enter(PhaseEvent::kContentComplete);
  if (step.outcome == ContentTracker::Outcome::kAmbiguous) {
    actions.CloseServer();
    Say(ReplyKind::kDataAmbiguousEnd, actions);
  }
  return step.bytes;
}

void Dialogue::Act(LineDecision&& decision, DialogueActions& actions) {
  if (decision.failure) actions.LogFailure(*decision.failure);
  state_.requested = std::move(decision.requested);
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
  }
  if (decision.too_many_bad_sequences && state_.phase != Phase::kEnding) actions.EndAfterPause();
}

void Dialogue::Forward(LineDecision& decision, DialogueActions& actions) {
  if (decision.forwarded) state_.forwarded = std::move(*decision.forwarded);
  if (decision.octets_follow) {
    EnterOctets(PhaseEvent::kBdatForwarded, *decision.octets_follow);
  } else {
    Enter(PhaseEvent::kForwarded);
  }
  if (configuration_.LogLevelServer & log_level::kSent) {
    actions.Log(Side::kServer, log_level::kSent, decision.logged.empty() ? decision.text : decision.logged);
  }
  actions.ToServer(decision.text, false);
}

void Dialogue::ExpectTls() {
  Enter(PhaseEvent::kTlsExpected);
}

void Dialogue::OnSecured() {
  Enter(PhaseEvent::kSecured);
}

void Dialogue::OnAddresses(const HostAddresses& answer, DialogueActions& actions) {
  if (state_.phase != Phase::kAsking) return;
  Act(commands_.ProcessAddresses(std::exchange(state_.asking_line, {}), answer, state_), actions);
}

// --- the server's side

void Dialogue::OnServerBytes(std::string bytes, DialogueActions& actions) {
  assembler_.Append(std::move(bytes));
  RelayReplies(actions);
  if (!assembler_.TooLong()) return;
  // Relayed in parts, unchanged, unless it offers extensions; its last line decides what it means.
  const bool is_ehlo_reply = state_.phase == Phase::kReply && state_.forwarded.command == Command::kEhlo;
  if (!is_ehlo_reply && RelayWholeLines(actions)) return;
  actions.Log(Side::kServer, log_level::kErrors, "Reply too long. Closing connection.");
  EndWithoutServer(actions);
}

void Dialogue::OnServerEnd(ServerEnd how, DialogueActions& actions) {
  assembler_.EndLine();
  RelayReplies(actions);
  RelayWholeLines(actions);
  if (how == ServerEnd::kFailed) return EndWithoutServer(actions);
  Enter(PhaseEvent::kEnd);
}

void Dialogue::RelayReplies(DialogueActions& actions) {
  while (const auto reply = assembler_.NextReply()) RelayReply(*reply, actions);
}

void Dialogue::RelayReply(std::string_view reply, DialogueActions& actions) {
  if (configuration_.LogLevelServer & log_level::kReceived) {
    actions.Log(Side::kServer, log_level::kReceived, reply);
  }
  ReplyDecision decision = replies_.ProcessOutgoingData(reply, state_);
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
  actions.ToClient(commands_.BuildReply(ReplyKind::kServerError, state_).append(kCrLf));
  actions.CloseServer();
  Enter(PhaseEvent::kEnd);
}

void Dialogue::Say(ReplyKind kind, DialogueActions& actions) {
  std::string reply = commands_.BuildReply(kind, state_);
  if (state_.phase == Phase::kTls || state_.phase == Phase::kStartTls) {
    actions.Log(Side::kClient, log_level::kErrors, "Refused without TLS: " + reply);
    return Enter(PhaseEvent::kEnd);
  }
  actions.ToClient(reply.append(kCrLf));
  if (FindPolicyReply(kind).after == AfterReply::kProxyOnly) {
    state_.transaction = Transaction::kRefused;
    Enter(PhaseEvent::kNoServer);
  } else {
    Enter(PhaseEvent::kEnd);
  }
}

// --- the state

void Dialogue::Enter(PhaseEvent event) {
  state_.phase = NextPhase(state_.phase, event);
  if (state_.phase == Phase::kDotContent) state_.content.BeginDot();
}

void Dialogue::EnterOctets(PhaseEvent event, std::uint64_t octets) {
  Enter(event);
  state_.content.BeginOctets(octets);
  if (octets == 0) Enter(PhaseEvent::kContentComplete);
}

}  // namespace trabex
