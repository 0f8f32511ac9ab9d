#include "proxy/cProxy.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "proxy/dialogue/response_changes.h"
#include "proxy/session_log.h"

namespace trabex {

namespace {

// Looked at for one command line: more than the longest one that is taken.
constexpr std::int32_t kLineRoom = 16384;
// Message content taken at a time, so that one busy session does not hold up the others.
constexpr std::int32_t kContentChunk = 65536;
// Command lines answered in one loop iteration, for the same reason.
constexpr int kLinesPerTurn = 32;
// So much of what a server says last is taken although the client does not take it.
constexpr std::size_t kLastWords = 65536;

constexpr std::string_view kSendTimeOut = "Send time-out. Closing connection.";

// The session's identity in decimal, with a place for the sign.
std::string KeyOf(const cProxy* session) {
  const auto identity = reinterpret_cast<std::intptr_t>(session);
  return (identity < 0 ? "" : " ") + std::to_string(identity);
}

// Sets a mark for as long as it lives.
class Taking {
 public:
  explicit Taking(bool& mark) : mark_(mark) { mark_ = true; }
  ~Taking() { mark_ = false; }
  Taking(const Taking&) = delete;
  Taking& operator=(const Taking&) = delete;

 private:
  bool& mark_;
};

double Days(MonotonicTime::duration span) {
  return std::chrono::duration<double>(span).count() / kSecondsPerDay;
}

}  // namespace

cProxy::cProxy(SessionHost& host)
    : host_(host),
      key_(KeyOf(this)),
      Receiver(host.sockets),
      Sender(host.sockets),
      commands_(host.configuration, host.clock, *this, state_, host.greylisting),
      replies_(host.configuration, host.clock, *this, state_) {
  // What it said explains its going, and is for the client; a client that is gone has nobody to answer to.
  Sender.SetHearsOut(true);
  Receiver.Events.Connect = [this] { RunHandler("cProxy.Receiver_Connect", [this] { Receiver_Connect(); }); };
  Receiver.Events.DataArrival = [this] {
    RunHandler("cProxy.Receiver_DataArrival", [this] { Receiver_DataArrival(); });
  };
  Receiver.Events.SendComplete = [this] {
    RunHandler("cProxy.Receiver_SendComplete", [this] { Receiver_SendComplete(); });
  };
  Receiver.Events.Error = [this](int number, std::string& description, const std::string&, bool&) {
    RunHandler("cProxy.Receiver_Error", [&] { Receiver_Error(number, description); });
  };
  Receiver.Events.CloseSck = [this] {
    RunHandler("cProxy.Receiver_CloseSck", [this] { Receiver_CloseSck(); });
  };
  Sender.Events.Connect = [this] { RunHandler("cProxy.Sender_Connect", [this] { Sender_Connect(); }); };
  Sender.Events.DataArrival = [this] {
    RunHandler("cProxy.Sender_DataArrival", [this] { Sender_DataArrival(); });
  };
  Sender.Events.SendComplete = [this] {
    RunHandler("cProxy.Sender_SendComplete", [this] { Sender_SendComplete(); });
  };
  Sender.Events.Error = [this](int number, std::string& description, const std::string&, bool&) {
    RunHandler("cProxy.Sender_Error", [&] { Sender_Error(number, description); });
  };
  Sender.Events.CloseSck = [this] { RunHandler("cProxy.Sender_CloseSck", [this] { Sender_CloseSck(); }); };
}

cProxy::~cProxy() {
  host_.names.Cancel(name_lookup_);
}

double cProxy::Duration() const {
  return Days(host_.clock.Monotonic() - StartTime);
}

// --- the client's side

void cProxy::Receiver_Connect() {
  LogReceiver(log_level::kConnection, "Connected.");
}

void cProxy::Receiver_DataArrival() {
  if (TimeoutSpan != 0 && LineHasCome()) LastActivity = host_.clock.Monotonic();
  ClientDataPending = true;
  TakeClientData();
}

// Whether the client has completed a line since this was asked last. Looks at it although it may have to
// wait: the next arrival is told only after a receive.
bool cProxy::LineHasCome() {
  const std::string_view there = Receiver.PeekView(kLineRoom);
  const std::int64_t begin = Receiver.BytesReceived();
  // The last byte that was there before may be the CR of this line's end.
  const auto seen =
      static_cast<std::size_t>(std::clamp<std::int64_t>(looked_to_ - begin - 1, 0, std::ssize(there)));
  looked_to_ = begin + std::ssize(there);
  // Octets that are thrown away hold no lines.
  const std::uint64_t dropped = std::min<std::uint64_t>(state_.Content.OctetsToDrop(), there.size());
  return there.find(kCrLf, std::max(seen, static_cast<std::size_t>(dropped))) != std::string_view::npos;
}

void cProxy::Receiver_SendComplete() {
  ReceiverSending = false;
  if (ServerDataPending) TakeServerData();
  if (stage_ == Stage::kClosed) return;
  if (CloseAfterSend && !ReceiverSending) {
    Close();
    return;
  }
  TakeClientData();
}

void cProxy::Receiver_Error(int number, const std::string& description) {
  LogReceiver(log_level::kErrors, "Error " + std::to_string(number) + ". " + description);
  Close();
}

void cProxy::Receiver_CloseSck() {
  Close();
}

void cProxy::TakeClientData() {
  if (taking_) return;  // the one below on the stack goes on
  const Taking on_the_stack(taking_);
  int lines = 0;
  while (ClientDataPending && stage_ != Stage::kClosed) {
    if (state_.Content.Active()) {
      if (!MayTakeContent()) break;
      TakeContent();
    } else {
      if (!MayTakeLine()) break;
      if (++lines > kLinesPerTurn) {
        // The others first; by then the session may have gone.
        host_.loop.Post([&host = host_, key = key_] {
          cProxy* session = host.sessions.Find(key);
          if (session) session->RunHandler("cProxy.Receiver_DataArrival", [&] { session->TakeClientData(); });
        });
        break;
      }
      TakeLine();
    }
  }
}

bool cProxy::MayTakeContent() const {
  return !deaf_ && (!SenderSending || state_.Content.Dropping());
}

bool cProxy::MayTakeLine() const {
  if (deaf_ || CloseAfterSend || SenderSending || ReceiverSending || name_lookup_ != 0 || !HostNameKnown)
    return false;
  if (stage_ == Stage::kRefused) return true;
  return stage_ == Stage::kRelaying && state_.Expected == ReplyExpected::kNone;
}

void cProxy::TakeContent() {
  const std::string_view there = Receiver.PeekView(kContentChunk);
  const bool dropping = state_.Content.Dropping();
  const ContentTracker::Step step = there.empty() ? ContentTracker::Step{} : state_.Content.Scan(there);
  // What is left over behind the end is there to be taken; otherwise the next data arrival tells.
  ClientDataPending = step.outcome != ContentTracker::Outcome::kGoesOn && step.bytes < there.size();
  std::string content;
  if (step.bytes > 0) Receiver.GetData(content, static_cast<std::int32_t>(step.bytes));
  if (!content.empty() && !dropping) {
    SenderSending = true;
    Sender.SendData(content);
  }
  if (step.outcome != ContentTracker::Outcome::kAmbiguous || stage_ == Stage::kClosed) return;
  state_.Content.Stop();
  deaf_ = true;
  CloseSender();
  ActOnLine(commands_.RefuseAmbiguousEnd());
}

void cProxy::TakeLine() {
  const std::string_view there = Receiver.PeekView(kLineRoom);
  if (auto refusal = commands_.RefuseLongLine(there)) {
    LogReceiver(log_level::kReceived,
                "< " + commands_.LoggedForm(there.substr(0, ClientCommandFilter::kMaxLine)) + "...");
    deaf_ = true;
    ActOnLine(std::move(*refusal));
    return;
  }
  const std::size_t line_end = there.find(kCrLf);
  if (line_end == std::string_view::npos) {
    ClientDataPending = false;
    return;
  }
  const std::size_t length = line_end + kCrLf.size();
  ClientDataPending = there.size() > length;
  std::string line;
  Receiver.GetData(line, static_cast<std::int32_t>(length));
  if (host_.configuration.LogLevelRemote & log_level::kReceived) {
    LogReceiver(log_level::kReceived, "< " + commands_.LoggedForm(line));
  }
  ActOnLine(commands_.ProcessIncomingData(line));
}

void cProxy::ActOnLine(LineDecision decision) {
  if (decision.failure) host_.log.LogError(*decision.failure);
  switch (decision.action) {
    case LineDecision::Action::kForward:
      if (host_.configuration.LogLevelServer & log_level::kSent) {
        LogSender(log_level::kSent, "> " + (decision.logged.empty() ? decision.text : decision.logged));
      }
      SendToServer(decision.text.append(decision.extra));
      break;
    case LineDecision::Action::kAnswer:
      // Set first: the send may be complete before it returns.
      CloseAfterSend = CloseAfterSend || decision.close_when_sent;
      SendToClient(decision.text.append(kCrLf));
      break;
    case LineDecision::Action::kWaitForName:
      name_lookup_ = host_.names.FindAddresses(decision.text, [this](const AddressAnswer& answer) {
        RunHandler("cProxy.ProcessIncomingData", [&] { ActOnNameAnswer(answer); });
      });
      break;
    case LineDecision::Action::kBreak:
      LogReceiver(log_level::kErrors, decision.text);
      Close();
      break;
  }
  if (decision.too_many_bad_sequences && !CloseAfterSend && stage_ != Stage::kClosed) EndAfterPause();
}

void cProxy::ActOnNameAnswer(const AddressAnswer& answer) {
  name_lookup_ = 0;
  ActOnLine(commands_.ProcessNameAnswer(answer));
  TakeClientData();
}

void cProxy::EndAfterPause() {
  LogReceiver(log_level::kErrors, "Maximum out-of-order commands exceeded. Closing connection.");
  deaf_ = true;
  pause_ = std::make_unique<Timer>(host_.loop, kBadSequencePause, [this] {
    RunHandler("cProxy.Receiver_DataArrival", [this] { Close(); });
  });
  pause_->Enable();
}

// --- the server's side

void cProxy::Sender_Connect() {
  stage_ = Stage::kRelaying;
  SenderConnected = true;
  TimeoutSpan = 0;
  LogSender(log_level::kConnection, "Connected.");
  TakeClientData();
}

void cProxy::Sender_DataArrival() {
  ServerDataPending = true;
  TakeServerData();
}

void cProxy::Sender_SendComplete() {
  SenderSending = false;
  TakeClientData();
}

void cProxy::Sender_Error(int number, const std::string& description) {
  LogSender(log_level::kErrors, "Error " + std::to_string(number) + ". " + description);
  RelayLastWords();
  EndWithoutServer();
}

void cProxy::Sender_CloseSck() {
  RelayLastWords();
  EndWhenSaid();
}

// What the server said last reaches the client, even if it broke off inside a line or a reply.
void cProxy::RelayLastWords() {
  deaf_ = true;  // what the client sent ahead is nobody's any more
  assembler_.EndLine();
  RelayReplies();
  if (stage_ != Stage::kClosed) RelayWholeLines();
}

// Tells the client that the server is gone, and ends the session.
void cProxy::EndWithoutServer() {
  deaf_ = true;
  ServerDataPending = false;
  SendPolicyReply(ReplyKind::kServerError);
  CloseSender();
  EndWhenSaid();
}

// Ends the session, at once or when the client has taken what waits for it. The server is not kept for that.
void cProxy::EndWhenSaid() {
  if (stage_ == Stage::kClosed) return;
  if (!ReceiverSending) return Close();
  CloseAfterSend = true;
  CloseSender();
}

void cProxy::TakeServerData() {
  // What comes during a send waits in the socket, so that a client that does not read holds up its server.
  if (!ReceiverSending) RelayServerData();
}

// A server that will say no more, and whose last words wait behind a send, need not be kept until the client
// takes them. Long ones stay in the socket, so that a session holds no more than it should.
void cProxy::HearServerOut() {
  if (ServerDataPending && Sender.UnreadBytes() <= kLastWords) RelayServerData();
}

void cProxy::RelayServerData() {
  ServerDataPending = false;
  std::string data;
  Sender.GetData(data);
  assembler_.Append(data);
  RelayReplies();
  if (stage_ == Stage::kClosed) return;
  if (assembler_.TooLong() && !RelayBeginOfReply()) {
    GiveUpServer("Reply too long. Closing connection.");
    return;
  }
  TakeClientData();
}

void cProxy::RelayReplies() {
  // The client's next line is taken when all of them are relayed: none may be read as the answer to it.
  std::optional<Taking> hold;
  if (!taking_) hold.emplace(taking_);
  while (stage_ != Stage::kClosed) {
    const auto reply = assembler_.NextReply();
    if (!reply) break;
    RelayReply(*reply);
  }
}

void cProxy::RelayReply(std::string_view reply) {
  if (host_.configuration.LogLevelServer & log_level::kReceived) {
    LogSender(log_level::kReceived, std::string("< ").append(reply));
  }
  const ReplyDecision decision = replies_.ProcessOutgoingData(reply);
  if (decision.content_cut_off) {
    deaf_ = true;
    CloseAfterSend = true;
  }
  SendToClient(decision.text);
  // The content is what the client says next. A server that takes no header has gone, and the client hears
  // that behind the reply.
  if (stage_ != Stage::kClosed && !decision.header.empty()) SendToServer(decision.header, true);
}

// A reply that is longer than any that is rewritten passes as it comes; what it means is told by its end.
bool cProxy::RelayBeginOfReply() {
  if (state_.Expected == ReplyExpected::kCommand && state_.Forwarded == Command::kEhlo) return false;
  return RelayWholeLines();
}

// Of a reply whose end has not come; false when there are none.
bool cProxy::RelayWholeLines() {
  const std::string lines = assembler_.TakeWholeLines();
  if (lines.empty()) return false;
  LogSender(log_level::kReceived, "< " + lines);
  SendToClient(lines);
  return true;
}

void cProxy::GiveUpServer(std::string_view reason) {
  LogSender(log_level::kErrors, reason);
  EndWithoutServer();
}

// --- the two exits

void cProxy::SendToClient(std::string_view text) {
  if (Receiver.State() != SocketState::sckConnected) return;
  if (host_.configuration.LogLevelRemote & log_level::kSent) {
    const std::string_view shown = text.ends_with(kCrLf) ? text.substr(0, text.size() - kCrLf.size()) : text;
    LogReceiver(log_level::kSent, std::string("> ").append(shown));
  }
  ReceiverSending = true;
  Receiver.SendData(text);
}

void cProxy::SendToServer(std::string_view text, bool more_follows) {
  if (Sender.State() != SocketState::sckConnected) return;
  SenderSending = true;
  Sender.SendData(text, more_follows);
}

void cProxy::SendPolicyReply(ReplyKind kind) {
  const SessionMacros macros(host_.configuration, host_.clock, *this, state_);
  std::string reply = BuildPolicyReply(kind, macros, host_.configuration.EnhancedStatusCodes);
  ApplyPolicyChanges(kind, FindPolicyReply(kind).key, state_.CurrentVerb, reply, host_.configuration, macros);
  SendToClient(reply.append(kCrLf));
}

// --- the end

void cProxy::CheckTimeout() {
  RunHandler("cProxy.CheckTimeout", [this] {
    if (EndSilent() || EndStuck()) return;
    // What is unread hides the end behind it.
    if (ServerDataPending && Sender.PeerEnded()) HearServerOut();
  });
}

bool cProxy::EndSilent() {
  if (TimeoutSpan == 0 || Days(host_.clock.Monotonic() - LastActivity) <= TimeoutSpan) return false;
  LogReceiver(log_level::kErrors, "Timeout exceeded. Closing connection.");
  Close();
  return true;
}

bool cProxy::EndStuck() {
  const MonotonicTime now = host_.clock.Monotonic();
  if (receiver_stall_.Look(Receiver, now)) {
    LogReceiver(log_level::kErrors, kSendTimeOut);
    Close();
    return true;
  }
  if (!sender_stall_.Look(Sender, now)) return false;
  LogSender(log_level::kErrors, kSendTimeOut);
  HearServerOut();
  RelayLastWords();
  EndWithoutServer();
  return true;
}

void cProxy::Shutdown() {
  deaf_ = true;
  ServerDataPending = false;
  RunHandler("cProxy.Shutdown", [this] { SendPolicyReply(ReplyKind::kShutdown); });
  Close();
}

void cProxy::Close() {
  if (stage_ == Stage::kClosed) return;
  stage_ = Stage::kClosed;
  RunLogged(host_.log, "cProxy.CloseReceiver", [this] { CloseReceiver(); });
  RunLogged(host_.log, "cProxy.CloseSender", [this] { CloseSender(); });
  host_.names.Cancel(std::exchange(name_lookup_, 0));
  pause_.reset();
  host_.table.RemoveRow(key_);
  if (auto self = host_.sessions.Remove(key_)) host_.loop.DeferredDelete(std::move(self));
}

void cProxy::CloseSender() {
  ServerDataPending = false;
  if (Sender.State() == SocketState::sckClosed) return;
  if (SenderConnected) {
    LogSender(log_level::kConnection,
              "Disconnected. Bytes received/sent: " + std::to_string(Sender.BytesReceived()) + "/" +
                  std::to_string(Sender.BytesSent()));
  }
  Sender.CloseSck();
}

void cProxy::CloseReceiver() {
  if (Receiver.State() == SocketState::sckClosed) return;
  LogReceiver(log_level::kConnection,
              "Disconnected. Bytes received/sent: " + std::to_string(Receiver.BytesReceived()) + "/" +
                  std::to_string(Receiver.BytesSent()));
  Receiver.CloseSck();
}

void cProxy::LogSender(std::int32_t level, std::string_view text) {
  if ((host_.configuration.LogLevelServer & level) == 0) return;
  host_.log.LogLine(FormatSessionLine("S: ", Sender.SocketHandle(), Sender.RemoteAddress(), text));
}

void cProxy::LogReceiver(std::int32_t level, std::string_view text) {
  if ((host_.configuration.LogLevelRemote & level) == 0) return;
  host_.log.LogLine(FormatSessionLine("R: ", Receiver.SocketHandle(), Receiver.RemoteAddress(), text));
}

}  // namespace trabex
