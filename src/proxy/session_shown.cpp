// What is shown of an open session to people who look at it.
#include "base/text.h"
#include "proxy/cProxy.h"

namespace trabex {

namespace {

// SEND, SOML and SAML (RFC 821) open a transaction just as MAIL does.
bool BeginsTransaction(Command command) {
  return command == Command::kMail || command == Command::kSend || command == Command::kSoml ||
         command == Command::kSaml;
}

}  // namespace

SessionState cProxy::State() const {
  const Phase phase = dialogue_.phase();
  if (phase == Phase::kEnding || phase == Phase::kFarewell || pause_ || stage_ == Stage::kClosed) {
    return SessionState::kEnding;
  }
  if (phase == Phase::kProxyHeader) return SessionState::kBalancer;
  if (handshake_) return SessionState::kClientTls;
  if (dialogue_.State().transaction == Transaction::kRefused) return SessionState::kRefused;
  if (stage_ == Stage::kAdmission) return SessionState::kClientName;
  if (Receiver.Sending()) return SessionState::kClientTakes;
  switch (phase) {
    case Phase::kServerGreeting:
      return Sender.IsConnected() ? SessionState::kServerGreeting : SessionState::kServerConnect;
    case Phase::kPreface:
      return SessionState::kServerConnect;
    case Phase::kAsking:
      return SessionState::kHeloLookup;
    case Phase::kReply:
      return dialogue_.AwaitsReplyToContent() ? SessionState::kContentReply : SessionState::kServerReply;
    case Phase::kContentReply:
      return SessionState::kContentReply;
    case Phase::kDotContent:
    case Phase::kChunk:
    case Phase::kOctets:
    case Phase::kAnsweredOctets:
    case Phase::kDiscard:
    case Phase::kTooLarge:
      return SessionState::kContent;
    default:
      break;
  }
  // What the client has said waits for its name, or for the server to take what was said before.
  if (Receiver.Readable() && !HostNameKnown) return SessionState::kClientName;
  return Sender.Sending() ? SessionState::kServerReply : SessionState::kIdle;
}

std::chrono::nanoseconds cProxy::TimeInState() const {
  return dependencies_.clock.Monotonic() - state_began_;
}

bool cProxy::InTransaction() const {
  const DialogueState& state = dialogue_.State();
  switch (state.phase) {
    case Phase::kDotContent:
    case Phase::kChunk:
    case Phase::kContentReply:
    case Phase::kTooLarge:
      return true;
    case Phase::kReply:
      if (BeginsTransaction(state.forwarded.command)) return true;
      break;
    default:
      break;
  }
  return state.transaction == Transaction::kOpen || state.transaction == Transaction::kChunks;
}

std::string_view cProxy::LastReply() const {
  const std::string_view reply = last_reply_.View();
  return reply.substr(0, reply.find(kCrLf));
}

}  // namespace trabex
