// What is shown of an open session to people who look at it.
#include <algorithm>
#include <cstddef>

#include "base/text.h"
#include "base/utf8.h"
#include "proxy/cProxy.h"

namespace trabex {

namespace {

// SEND, SOML and SAML (RFC 821) open a transaction just as MAIL does.
bool BeginsTransaction(Command command) {
  return command == Command::kMail || command == Command::kSend || command == Command::kSoml ||
         command == Command::kSaml;
}

std::string_view FirstLine(std::string_view text) {
  return text.substr(0, text.find_first_of(kCrLf));
}

// Without the bytes at the end that are the beginning of a character in UTF-8.
std::string_view WithoutCutCharacter(std::string_view text) {
  constexpr std::size_t kMaxCut = 3;
  for (std::size_t cut = 1; cut <= std::min(kMaxCut, text.size()); ++cut) {
    const auto byte = static_cast<unsigned char>(text[text.size() - cut]);
    if (byte < 0x80) break;
    if (byte < 0xC0) continue;
    const bool whole = FirstUtf8Character(text.substr(text.size() - cut)).size == cut;
    return whole ? text : text.substr(0, text.size() - cut);
  }
  return text;
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
  return state.transaction >= Transaction::kOpen;
}

std::string_view cProxy::LastReply() const {
  return WithoutCutCharacter(FirstLine(last_reply_.View()));
}

}  // namespace trabex
