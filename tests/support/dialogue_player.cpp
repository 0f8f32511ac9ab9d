#include "support/dialogue_player.h"

#include <utility>

#include "base/text.h"
#include "match/ip_range.h"
#include "proxy/session_log.h"
#include "script/escapes.h"

namespace trabex {

namespace {

using script::StepKind;

// The pause before a session is closed for commands out of order.
constexpr std::chrono::milliseconds kPause{500};

bool AwaitsTls(Phase phase) {
  return phase == Phase::kTls || phase == Phase::kStartTls;
}

}  // namespace

DialoguePlayer::DialoguePlayer(const Configuration& configuration, FakeClock& clock, Client client,
                               GreylistCheck* greylisting)
    : configuration_(configuration),
      clock_(clock),
      client_(std::move(client)),
      dialogue_(configuration, clock, *this, greylisting) {
  if (client_.on_tls_port) dialogue_.ExpectTls();
}

void DialoguePlayer::Attend(ScriptedServer& server) {
  attended_ = &server;
  Pump();
}

std::string DialoguePlayer::Play(std::string_view text) {
  try {
    return Play(script::ReadScript(text).steps);
  } catch (const script::ScriptError& error) {
    return error.what();
  }
}

std::string DialoguePlayer::Play(const std::vector<script::Step>& steps) {
  for (const script::Step& step : steps) {
    dialogue_so_far_.append("    ").append(step.source).append("\n");
    if (!PlayStep(step)) return failure_ + "\n  the dialogue so far:\n" + dialogue_so_far_;
  }
  return {};
}

bool DialoguePlayer::PlayStep(const script::Step& step) {
  std::string& received = ReceivedBy(step.side);
  switch (step.kind) {
    case StepKind::kSend:
      return Send(step.side, step.sending), true;
    case StepKind::kGetLine:
      return ExpectLine(received, step.pattern);
    case StepKind::kGetNothing:
      return received.empty() || Fail("there is something: \"" + script::Escape(received) + "\"");
    case StepKind::kGetBytes:
      if (!received.starts_with(step.bytes))
        return Fail("what there is: \"" + script::Escape(received) + "\"");
      return received.erase(0, step.bytes.size()), true;
    case StepKind::kClose:
    case StepKind::kReset:
    case StepKind::kShutDown:
      return LeavePeer(step), true;
    case StepKind::kClosed:
      return ExpectClosed(step.side);
    case StepKind::kWait:
      clock_.Advance(std::chrono::milliseconds(step.milliseconds));
      return Pump(), true;
    case StepKind::kLog:
      return ExpectLogged(step.pattern);
    case StepKind::kAskName:
      return asked_name_ == step.bytes || Fail("asked for: " + asked_name_.value_or("nothing"));
    case StepKind::kAnswer:
      return Answer(step.answers), true;
    case StepKind::kStop:
      dialogue_.Say(ReplyKind::kShutdown, *this);
      return Pump(), true;
    case StepKind::kAccept:
      return true;
    case StepKind::kStartTls:
      return MakeHandshake();
    case StepKind::kConnect:
      break;
  }
  return Fail("no step for a dialogue alone");
}

void DialoguePlayer::Send(script::Side side, const script::Sending& sending) {
  std::size_t begin = 0;
  for (const std::size_t end : sending.segments) {
    Deliver(side, std::string_view(sending.bytes).substr(begin, end - begin));
    begin = end;
  }
  Deliver(side, std::string_view(sending.bytes).substr(begin));
}

void DialoguePlayer::Deliver(script::Side side, std::string_view bytes) {
  const auto deliver = [&](std::string_view piece) {
    side == script::Side::kClient ? ClientSends(piece) : ServerSends(piece);
  };
  if (delivery_ == script::Delivery::kWhole) return deliver(bytes);
  for (std::size_t at = 0; at < bytes.size(); ++at) deliver(bytes.substr(at, 1));
}

void DialoguePlayer::ClientSends(std::string_view bytes) {
  if (heard_) heard_(script::Side::kClient, bytes);
  from_client_ += bytes;
  Pump();
}

void DialoguePlayer::ServerSends(std::string_view bytes) {
  if (heard_) heard_(script::Side::kServer, bytes);
  from_server_ += bytes;
  Pump();
}

void DialoguePlayer::EndClient() {
  client_ended_ = true;
  Pump();
}

void DialoguePlayer::LeavePeer(const script::Step& step) {
  if (step.side == script::Side::kServer) {
    server_end_ = step.kind == StepKind::kReset ? Dialogue::ServerEnd::kFailed : Dialogue::ServerEnd::kClosed;
  } else {
    client_ended_ = true;
    client_gone_ = step.kind != StepKind::kShutDown;
  }
  Pump();
}

bool DialoguePlayer::MakeHandshake() {
  if (over_ || !AwaitsTls(dialogue_.phase())) return Fail("no handshake is awaited");
  secured_ = true;
  dialogue_.OnSecured();
  return Pump(), true;
}

std::string DialoguePlayer::NextReply() {
  std::string reply;
  for (bool goes_on = true; goes_on;) {
    const std::size_t end = to_client_.find(kCrLf);
    if (end == std::string::npos) return reply + "(no more than \"" + script::Escape(to_client_) + "\")";
    goes_on = end > 3 && to_client_[3] == '-';
    reply += to_client_.substr(0, end + kCrLf.size());
    to_client_.erase(0, end + kCrLf.size());
  }
  return reply;
}

bool DialoguePlayer::ExpectLine(std::string& received, const script::Pattern& wanted) {
  const std::size_t end = received.find(kCrLf);
  if (end == std::string::npos)
    return Fail("got no such line; what there is: \"" + script::Escape(received) + "\"");
  const std::string line = received.substr(0, end);
  received.erase(0, end + kCrLf.size());
  return wanted.Matches(line) || Fail("got  \"" + script::Escape(line) + "\"");
}

bool DialoguePlayer::ExpectClosed(script::Side side) {
  if (!over_ && !(side == script::Side::kServer && server_closed_)) return Fail("it is not closed");
  const std::string& received = ReceivedBy(side);
  return received.empty() || Fail("before the end came \"" + script::Escape(received) + "\"");
}

bool DialoguePlayer::ExpectLogged(const script::Pattern& wanted) {
  std::string all = "no such log line; there are:";
  for (const std::string& line : log_) {
    if (wanted.Matches(line)) return true;
    all.append("\n    ").append(line);
  }
  return Fail(all);
}

bool DialoguePlayer::Fail(std::string reason) {
  failure_ = std::move(reason);
  return false;
}

// --- the pump

void DialoguePlayer::Pump() {
  while (PumpOnce() || ServeOnce()) {
  }
}

bool DialoguePlayer::PumpOnce() {
  if (over_) return false;
  if (!from_server_.empty() && !server_closed_) {
    dialogue_.OnServerBytes(std::exchange(from_server_, {}), *this);
    return true;
  }
  if (server_end_ && !server_closed_) {
    server_closed_ = true;
    dialogue_.OnServerEnd(*server_end_, *this);
    return true;
  }
  if (ends_at_ && clock_.Monotonic() >= *ends_at_) over_ = true;
  // What comes in the clear is no handshake.
  if (AwaitsTls(dialogue_.phase()) && !from_client_.empty()) over_ = true;
  if (dialogue_.phase() == Phase::kEnding) over_ = true;
  if (over_) return false;
  if (ends_at_) return over_ = client_ended_ && from_client_.empty();
  if (asked_name_ && names_) {
    const auto addresses = names_(*std::exchange(asked_name_, std::nullopt));
    dialogue_.OnAddresses({addresses.has_value(), addresses.value_or(Addresses())}, *this);
    return true;
  }
  return TakeFromClient();
}

bool DialoguePlayer::TakeFromClient() {
  if (!from_client_.empty()) {
    const Phase before = dialogue_.phase();
    const std::size_t used = dialogue_.OnClientBytes(from_client_, *this);
    from_client_.erase(0, used);
    if (used > 0 || dialogue_.phase() != before) return true;
  }
  // An end is noticed when the bytes before it were taken.
  if (client_ended_ && (from_client_.empty() || dialogue_.Expected() != ClientBytes::kWait)) over_ = true;
  return over_;
}

// Hands the attended server what it got, and takes the next segment of what it says.
bool DialoguePlayer::ServeOnce() {
  if (attended_ == nullptr) return false;
  attended_->Take(std::exchange(to_server_, {}));
  if (over_ || server_closed_) {
    attended_->TakeEnd();
    return false;
  }
  const std::string segment = attended_->NextSegment();
  if (segment.empty() && !attended_->HasHungUp()) return false;
  if (heard_ && !segment.empty()) heard_(script::Side::kServer, segment);
  from_server_ += segment;
  if (segment.empty()) server_end_ = Dialogue::ServerEnd::kClosed;
  return true;
}

void DialoguePlayer::Answer(const script::NameAnswers& answers) {
  Addresses addresses;
  for (const std::string& address : answers.addresses) addresses.push_back(mCommon::CLngIP(address));
  asked_name_.reset();
  dialogue_.OnAddresses({!answers.error.has_value(), addresses}, *this);
  Pump();
}

// --- what the dialogue wants

void DialoguePlayer::ToServer(std::string_view bytes, bool) {
  if (!server_closed_) to_server_ += bytes;
}

void DialoguePlayer::ToClient(std::string_view reply) {
  bytes_sent_ += std::ssize(reply);
  if (client_gone_) {
    over_ = true;
  } else {
    to_client_ += reply;
  }
}

void DialoguePlayer::StartTls(std::string_view last_words) {
  ToClient(last_words);
}

TlsTexts DialoguePlayer::TlsText() const {
  if (!secured_) return {};
  return {"TLSv1.3", "TLS_AES_256_GCM_SHA384", ""};
}

void DialoguePlayer::AskForAddresses(std::string_view host_name) {
  asked_name_ = host_name;
}

void DialoguePlayer::EndAfterPause() {
  ends_at_ = clock_.Monotonic() + kPause;
}

void DialoguePlayer::Log(Side side, std::int32_t level, std::string_view text) {
  log_.push_back(
      FormatSessionLine(side == Side::kClient ? "R: " : "S: ", 1, client_.ip, text, LogMark(level)));
}

void DialoguePlayer::LogFailure(const Error& error) {
  log_.push_back(error.Description());
}

}  // namespace trabex
