#include "proxy/cProxy.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "base/text.h"
#include "proxy/last_words.h"

namespace trabex {

namespace {

// How many bytes a search for a command line's end gets: more than the longest line that is taken.
constexpr std::int32_t kLinePeekBytes = 16384;
// Message content taken at a time, so that one busy session does not hold up the others.
constexpr std::int32_t kContentChunk = 65536;
// Of that, what goes on at a time when it comes encrypted: one record, which the caches still hold from its decryption
// when it is sent.
constexpr std::int32_t kContentRecord = 16384;
// Command lines answered in one loop iteration, for the same reason.
constexpr int kMaxLinesAtOnce = 32;
// So much of what a server says last is taken although the client does not take it.
constexpr std::size_t kMaxLastWords = 65536;

constexpr std::string_view kSendTimeOut = "Send time-out. Closing connection.";

// The session's identity in decimal, with a place for the sign.
std::string KeyOf(const cProxy* session) {
  const auto identity = reinterpret_cast<std::intptr_t>(session);
  return (identity < 0 ? "" : " ") + std::to_string(identity);
}

}  // namespace

cProxy::cProxy(SessionDependencies& dependencies)
    : dependencies_(dependencies),
      key_(KeyOf(this)),
      id_(dependencies.sessions.NextId()),
      Receiver(SessionSide::Peer::kClient, dependencies, *this),
      Sender(SessionSide::Peer::kServer, dependencies, *this),
      dialogue_(dependencies.configuration, dependencies.clock, *this, dependencies.greylisting) {
  // If the server closes, what it sent before is delivered; after a client has closed, its unread input is of
  // no use.
  Sender.Socket().SetDrainBeforeSendError(true);
}

cProxy::~cProxy() {
  dependencies_.names.Cancel(name_lookup_);
}

std::chrono::nanoseconds cProxy::Age() const {
  return dependencies_.clock.Monotonic() - StartTime;
}

double cProxy::Duration() const {
  return std::chrono::duration<double>(Age()).count() / kSecondsPerDay;
}

// --- events

void cProxy::OnSideEvent(SessionSide& side, SessionSide::Event event) {
  if (stage_ == Stage::kClosed) return;
  EndIfOutOfMemory([&] { TakeSideEvent(side, event); });
}

void cProxy::TakeSideEvent(SessionSide& side, SessionSide::Event event) {
  if (event == SessionSide::Event::kSecured) {
    if (&side == &Receiver) {
      TlsStands();
    } else {
      if (opening_) opening_->handshake_end = MonotonicTime::max();
      AwaitServer();
      dialogue_.OnServerSecured(*this);
    }
  } else if (event == SessionSide::Event::kConnect) {
    // Of the server; the client is connected from the beginning.
    TimeoutSpan = std::chrono::seconds(0);
    timeout_.reset();
    AwaitServer();
    side.Log(log_level::kConnection, "Connected.");
    if (dependencies_.observer != nullptr) {
      dependencies_.observer->OnServerConnected(*this, dependencies_.clock.Monotonic() - state_began_);
    }
    MovesOn();
    if (NeedsApproach(dependencies_.configuration)) ApproachServer();
  } else if (event == SessionSide::Event::kDataArrival && &side == &Receiver && TimeoutSpan.count() != 0 &&
             LineHasCome()) {
    LastActivity = dependencies_.clock.Monotonic();
  } else if (event == SessionSide::Event::kDataArrival && &side == &Receiver) {
    LookForEnd();
  }
  Pump();
}

// --- the pump

void cProxy::Pump() {
  const Phase begin = dialogue_.phase();
  for (int lines = 0; stage_ != Stage::kClosed;) {
    if (Sender.HasEnded()) {
      EndsBy(dialogue_.phase() == Phase::kFarewell ? SessionEnd::kQuit : SessionEnd::kServer);
      dialogue_.OnServerEnd(Sender.TakeEnd(), *this);
      // The server is not kept until the client has taken everything.
      if (Receiver.Sending()) CloseServer();
    } else if (Receiver.HasEnded()) {
      EndClient();
    } else if (opening_ && FollowOpening()) {
      continue;
    } else if (Sender.Readable() && !Receiver.Sending() && !handshake_) {
      // What comes during a send waits in the socket, so that a client that does not read holds up its
      // server. Likewise one that makes its handshake.
      TakeServerBytes();
    } else if (dialogue_.phase() == Phase::kEnding && !Receiver.Sending()) {
      Close();
    } else if (Receiver.Readable() && MayTakeClientBytes()) {
      if (dialogue_.Expected() == ClientBytes::kLine && ++lines > kMaxLinesAtOnce) {
        // Yields to other sessions; this one may be closed before the posted call runs.
        PumpLater();
        break;
      }
      TakeClientBytes();
    } else {
      break;
    }
  }
  if (dialogue_.phase() != begin) MovesOn();
  if (stage_ != Stage::kClosed) Watch();
}

void cProxy::PumpLater() {
  dependencies_.loop.Post([&dependencies = dependencies_, key = key_] {
    cProxy* session = dependencies.sessions.Find(key);
    if (session) session->RunHandler("cProxy.Receiver_DataArrival", [&] { session->Pump(); });
  });
}

// A client that leaves says so in a record, and the end of its connection waits behind that. While the server owes
// something nobody else reads it.
void cProxy::LookForEnd() {
  if (dialogue_.Expected() == ClientBytes::kWait && Receiver.Socket().Tls() != nullptr) Receiver.Peek(1);
}

bool cProxy::MayTakeClientBytes() const {
  if (pause_) return false;
  switch (dialogue_.Expected()) {
    case ClientBytes::kLine:
      return HostNameKnown && !Sender.Sending() && !Receiver.Sending();
    case ClientBytes::kContent:
      return !Sender.Sending();
    case ClientBytes::kDiscarded:
    case ClientBytes::kHeader:
      return true;
    case ClientBytes::kWait:
      break;
  }
  return false;
}

void cProxy::TakeClientBytes() {
  if (dialogue_.Expected() == ClientBytes::kHeader) return TakeHeader();
  if (dialogue_.Expected() == ClientBytes::kContent) return TakeContent();
  const bool is_line = dialogue_.Expected() == ClientBytes::kLine;
  const std::int64_t taken = dialogue_.State().BytesReceived;
  TakeUpTo(is_line ? kLinePeekBytes : kContentChunk);
  if (is_line && dialogue_.State().BytesReceived != taken) MovesOn();
  // Only now: what is not taken would be the beginning of the client's TLS.
  if (dialogue_.phase() == Phase::kStartTls) BeginTls();
}

bool cProxy::TakeUpTo(std::int32_t limit) {
  const std::string_view there = Receiver.Peek(limit);
  const std::size_t size = there.size();
  Receiver.Take(dialogue_.OnClientBytes(there, *this), size);
  return size == static_cast<std::size_t>(limit);
}

void cProxy::TakeContent() {
  if (PassOctets()) return;
  const std::int32_t piece = Receiver.Socket().Tls() != nullptr ? kContentRecord : kContentChunk;
  std::int32_t left = kContentChunk;
  do {
    if (!TakeUpTo(piece)) return;
    left -= piece;
  } while (left > 0 && dialogue_.Expected() == ClientBytes::kContent && MayTakeClientBytes() &&
           !Sender.HasEnded() && !IsOver());
}

void cProxy::TakeServerBytes() {
  MovesOn();
  dialogue_.OnServerBytes(Sender.TakeAll(), *this);
  if (recipients_ && !InTransaction()) DropRecipients();
  // A part of what is waited for has come.
  if (HasServerTimeout() && dialogue_.AwaitsServer()) BeginServerWait();
}

bool cProxy::PassOctets() {
  const std::uint64_t octets = dialogue_.OctetsToPass();
  if (octets == 0 || IsOver()) return false;
  const std::size_t passed = Receiver.PassTo(Sender, octets);
  if (passed == 0) return false;
  AwaitServer();
  dialogue_.OnOctetsPassed(passed, *this);
  return true;
}

bool cProxy::IsOver() const {
  return Receiver.HasEnded() || (dialogue_.phase() == Phase::kEnding && Receiver.SentAtOnce());
}

// --- what the dialogue wants

void cProxy::ToServer(std::string_view bytes, bool more_follows) {
  if (IsOver()) return;
  AwaitServer();
  Sender.Send(bytes, more_follows);
}

void cProxy::ToClient(std::string_view reply) {
  if (IsOver() || !Receiver.IsConnected()) return;
  Receiver.Log(log_level::kSent, WithoutLineEnd(reply));
  last_reply_.Assign(reply);
  Receiver.Send(reply);
}

void cProxy::StartTls(std::string_view last_words) {
  handshake_ = std::make_unique<Handshake>();
  handshake_->last_words = last_words;
  last_reply_.Assign(last_words);
}

void cProxy::AskForAddresses(std::string_view host_name) {
  // A name shall have the address that its client came from, so addresses of the other family are of no use.
  const LookupFamily family = LookupFamilyOf(ClientIP());
  name_lookup_ = dependencies_.names.FindAddresses(host_name, family, [this](const AddressAnswer& answer) {
    RunHandler("cProxy.ProcessIncomingData", [&] {
      name_lookup_ = 0;
      dialogue_.OnAddresses({answer.error == 0, answer.addresses}, *this);
      MovesOn();
      Pump();
    });
  });
}

void cProxy::CloseServer() {
  if (IsOver()) return;
  TellServerLeaves();
  Sender.Close();
}

void cProxy::EndAfterPause() {
  if (IsOver() || Sender.HasEnded()) return;
  EndsBy(SessionEnd::kBadSequence);
  Receiver.Log(log_level::kErrors, "Maximum out-of-order commands exceeded. Closing connection.");
  pause_ = std::make_unique<Timer>(dependencies_.loop, kBadSequencePause, [this] {
    RunHandler("cProxy.Receiver_DataArrival", [this] { Close(); });
  });
  pause_->Enable();
}

void cProxy::Log(Side side, std::int32_t level, std::string_view text) {
  if (!IsOver()) (side == Side::kClient ? Receiver : Sender).Log(level, text);
}

// --- TLS with the client

TlsTexts cProxy::TlsText() const {
  const TlsFacts* facts = Receiver.Socket().Tls();
  if (facts == nullptr) return {};
  return {std::string(facts->version), std::string(facts->cipher),
          facts->peer_verified ? facts->peer_name : ""};
}

void cProxy::BeginTls() {
  const auto& context = dependencies_.tls.for_clients;
  if (!context) {
    CloseBecause(SessionEnd::kRefused, "No certificate. Closing connection.");
    return;
  }
  handshake_->began = dependencies_.clock.Monotonic();
  // Without a client the pump ends the session.
  if (IsOver() || !Receiver.IsConnected()) return;
  const std::string last_words = std::exchange(handshake_->last_words, {});
  if (!last_words.empty()) Receiver.Log(log_level::kSent, WithoutLineEnd(last_words));
  dependencies_.sockets.SetMaxHandshakes(
      static_cast<std::size_t>(dependencies_.configuration.TLS.MaxHandshakes));
  Receiver.StartTls(TlsRole::kServer, context, last_words);
}

void cProxy::TlsStands() {
  const bool at_begin = dialogue_.phase() == Phase::kTls;
  MovesOn();
  handshake_.reset();
  if (!NeedsWatch()) stall_timer_.reset();
  dialogue_.OnSecured();
  if (!at_begin) return;
  LastActivity = dependencies_.clock.Monotonic();
  AdmitFurther();
}

void cProxy::EndClient() {
  EndsBy(dialogue_.phase() == Phase::kFarewell ? SessionEnd::kQuit : SessionEnd::kClient);
  if (handshake_ && Receiver.HasClosed()) Receiver.Log(log_level::kErrors, "TLS handshake broken off.");
  const std::string_view lost = dialogue_.LostWithClient();
  if (!lost.empty()) Receiver.Log(log_level::kErrors, lost);
  Close();
}

bool cProxy::EndHandshake() {
  if (!handshake_) return false;
  const auto max = std::chrono::seconds(dependencies_.configuration.TLS.HandshakeTimeout);
  if (dependencies_.clock.Monotonic() - handshake_->began <= max) return false;
  return CloseBecause(SessionEnd::kTimeout, "TLS handshake time-out. Closing connection.");
}

// --- time

// Whether the client has completed a line since the last call. Reads the bytes although the line may have to
// wait: DataArrival is raised again only after a receive.
bool cProxy::LineHasCome() {
  const std::string_view there = Receiver.Peek(kLinePeekBytes);
  const std::int64_t begin = Receiver.Socket().BytesReceived();
  // The last byte that was there before may be the CR of this line's end.
  const auto seen =
      static_cast<std::size_t>(std::clamp<std::int64_t>(looked_to_ - begin - 1, 0, std::ssize(there)));
  looked_to_ = begin + std::ssize(there);
  // Octets that are thrown away hold no lines.
  std::size_t dropped = 0;
  if (dialogue_.phase() == Phase::kDiscard) {
    dropped = static_cast<std::size_t>(
        std::min<std::uint64_t>(dialogue_.State().content.OctetsLeft(), there.size()));
  }
  return there.find(kCrLf, std::max(seen, dropped)) != std::string_view::npos;
}

void cProxy::ArmTimeout() {
  TimeoutSpan = std::chrono::seconds(dependencies_.configuration.Timeout);
  if (TimeoutSpan.count() == 0) return;
  LastActivity = dependencies_.clock.Monotonic();
  ArmTimer();
}

void cProxy::ArmTimer() {
  const auto left = TimeoutSpan - (dependencies_.clock.Monotonic() - LastActivity);
  const auto wait = std::max(std::chrono::floor<Milliseconds>(left), Milliseconds(0)) + Milliseconds(1);
  if (!timeout_) {
    timeout_ = std::make_unique<Timer>(dependencies_.loop, wait, [this] { CheckTimeout(); });
    timeout_->Enable();
  } else {
    timeout_->SetInterval(wait);
  }
}

void cProxy::CheckTimeout() {
  RunHandler("cProxy.CheckTimeout", [this] {
    if (EndSilent() || EndHandshake() || EndOpening() || EndStuck()) return;
    if (!NeedsWatch()) stall_timer_.reset();
    // The end of the connection is noticed only after the unread bytes before it.
    if (Sender.Readable() && Sender.Socket().PeerEnded()) TakeLastWords();
    Pump();
  });
}

bool cProxy::EndSilent() {
  if (TimeoutSpan.count() == 0) return false;
  if (dependencies_.clock.Monotonic() - LastActivity <= TimeoutSpan) {
    ArmTimer();
    return false;
  }
  return CloseBecause(SessionEnd::kTimeout, "Timeout exceeded. Closing connection.");
}

bool cProxy::EndStuck() {
  const MonotonicTime now = dependencies_.clock.Monotonic();
  if (Receiver.IsStuck(now)) return CloseBecause(SessionEnd::kTimeout, kSendTimeOut);
  if (!Sender.IsStuck(now)) return false;
  EndsBy(SessionEnd::kTimeout);
  Sender.Log(log_level::kErrors, kSendTimeOut);
  TakeLastWords();
  dialogue_.OnServerEnd(Dialogue::ServerEnd::kFailed, *this);
  Pump();
  return true;
}

// A server that has closed need not be kept while its last words wait for a send to the client to complete.
// Long ones stay in the socket, so that a session holds no more than it should.
void cProxy::TakeLastWords() {
  if (Sender.Readable() && Sender.Socket().UnreadBytes() <= kMaxLastWords) TakeServerBytes();
}

void cProxy::Watch() {
  if (!NeedsWatch()) return;
  if (stall_timer_) return;
  stall_timer_ = std::make_unique<Timer>(dependencies_.loop, kStallInterval, [this] { CheckTimeout(); });
  stall_timer_->Enable();
}

// --- the end

void cProxy::Shutdown(SessionEnd how) {
  EndsBy(how);
  RunHandler("cProxy.Shutdown", [this] { dialogue_.Say(ReplyKind::kShutdown, *this); });
  Close();
}

bool cProxy::CloseBecause(SessionEnd how, std::string_view reason) {
  EndsBy(how);
  Receiver.Log(log_level::kErrors, reason);
  Close();
  return true;
}

void cProxy::EndOutOfMemory() {
  if (stage_ == Stage::kClosed) return;
  try {
    EndsBy(SessionEnd::kRefused);
    dependencies_.sockets.Reserve().Release();
    dialogue_.Say(ReplyKind::kServerError, *this);
  } catch (const std::exception&) {
    if (dialogue_.MaySpeak()) Receiver.SayLast(LastWords(dependencies_.configuration).Text());
  }
  Close();
  dependencies_.sockets.Reserve().Renew();
}

void cProxy::Close() {
  if (stage_ == Stage::kClosed) return;
  RunLogged(dependencies_.log, "cProxy.Close", [this] { TellEnd(); });
  stage_ = Stage::kClosed;
  RunLogged(dependencies_.log, "cProxy.CloseReceiver", [this] { Receiver.Close(); });
  RunLogged(dependencies_.log, "cProxy.CloseSender", [this] { Sender.Close(); });
  dependencies_.names.Cancel(std::exchange(name_lookup_, 0));
  pause_.reset();
  timeout_.reset();
  stall_timer_.reset();
  server_wait_.reset();
  DropRecipients();
  if (auto self = dependencies_.sessions.Remove(key_)) dependencies_.loop.DeferredDelete(std::move(self));
}

}  // namespace trabex
