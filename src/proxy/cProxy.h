// One SMTP session: a client's connection and the one that the proxy opens to the real server on its behalf.
//
// The life of a session, and what happens when either side closes:
//
// - admission: the client was accepted; the number of sessions, the IP lists, and where the settings ask for
//   it the client's name from DNS are checked.
//   The client closes: the session ends.
//
// - balancer: a connection of a load balancer begins with a header that says whose it is. Nothing else is
//   looked at before, and nothing is said; from then on the client is the one in the header.
//
// - TLS port: behind the checks of number and address comes the TLS handshake, and then the client's name.
//   Until it is done the client could read no reply: it is closed without one, and no server is connected.
//
// - refused: the client's name was refused; only the proxy talks to it, until QUIT or the time-out.
//
// - connecting: the connection to the server is being made, the client's data waits. When it fails, the
//   client gets 421 and the session ends. Where the settings ask for it the server then gets a header of the
//   PROXY protocol, and the preface follows (dialogue/server_preface.h), while the client's data waits.
//
// - relaying: from the server's connection on. Either side closes: what was said so far still reaches the
//   other one, then the session ends. While the client has not taken all of it, the session goes on for the
//   client alone; the server's connection is closed at once.
//
// - STARTTLS: while the handshake goes on, what the server says waits. The handshake's time is bounded.
//
// Up to the server's connection a client that completes no line for Timeout seconds is closed. A server that
// owes something and says nothing for ServerTimeout seconds loses its session. A send to either side that
// makes no progress (see SendStall) ends the session at any time.
//
// The dialogue decides and the session moves bytes: each event notes a fact at the side that it is about, and
// one pump then lets the dialogue take what is there until nothing moves. There is one send under way per
// direction, and what comes meanwhile waits in the socket. Everything runs on the loop; a session that has
// ended takes no further event, and is destroyed at the end of the loop iteration.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include "base/log.h"
#include "base/short_text.h"
#include "platform/event_loop.h"
#include "proxy/accepted_recipients.h"
#include "proxy/dialogue/dialogue.h"
#include "proxy/session_dependencies.h"
#include "proxy/session_id.h"
#include "proxy/session_observer.h"
#include "proxy/session_side.h"
#include "proxy/session_state.h"
#include "resolver/name_lookup.h"

namespace trabex {

class cProxy final : public DeferredDeletable,
                     private SessionFacts,
                     private DialogueActions,
                     private SessionSide::Owner {
 public:
  // The pause before a session is closed for commands out of order.
  static constexpr Milliseconds kBadSequencePause{500};
  // How often a session checks a send that waits, and a handshake.
  static constexpr Milliseconds kStallInterval{500};

  explicit cProxy(SessionDependencies& dependencies);
  ~cProxy() override;
  cProxy(const cProxy&) = delete;
  cProxy& operator=(const cProxy&) = delete;

  // Adds a session to the collection for the connection request of a listener, and initializes it. Where there is no
  // memory for one it is made out of the reserve, and ends with 421. Where that does not suffice the client is told the
  // same without a session, and std::bad_alloc raised.
  static void Begin(SessionDependencies& dependencies, std::int32_t requestID, bool tls);
  // Takes the connection request of the listener, which is one where TLS is spoken from the first byte on, or
  // not: admission, then the connection to the server. The session is in the collection before; it may have
  // left it when this returns. `without_memory`: there is only as much as its end takes.
  void Init(std::int32_t requestID, bool tls, bool without_memory = false);
  // Ends the session when its client completed no line for longer than Timeout and the server is not yet
  // connected, when a send is stuck, or when a TLS handshake takes too long. Closes the connection of a
  // server that has closed. Timers of the session call it.
  void CheckTimeout();
  // Tells the client that the service stops, then closes. With kClosed it is only this session that ends.
  void Shutdown(SessionEnd how = SessionEnd::kShutdown);
  // Ends the session: both sockets close in order, and it leaves the collection. Every end goes through it.
  void Close();

  // The key in the collection.
  const std::string& Key() const { return key_; }
  // Its name for people; no other session has it, not even one of an earlier run.
  SessionId Id() const { return id_; }
  // -1 when the server is not connected.
  std::int32_t ServerHandle() const { return Sender.Socket().SocketHandle(); }
  // Whether the client counts as local.
  bool ClientIsLocal() const { return IsLocalClient(); }
  // Whether the client has passed the checks that come before the server is connected.
  bool Admitted() const { return stage_ == Stage::kAdmitted; }
  // The client's name from DNS; "" as long as there is none.
  const std::string& Name() const { return HostName; }
  // What the client said in HELO or EHLO last.
  const std::string& Helo() const { return dialogue_.State().requested.HeloDomain; }
  // What it does or waits for, and for how long, to half a second or so.
  SessionState State() const;
  std::chrono::nanoseconds TimeInState() const;
  // What the client asked for last, for as long as it counts.
  const RequestedState& Requested() const { return dialogue_.State().requested; }
  // Whether the client has begun a transaction, also while its content runs and until that has its reply; its
  // sender and latest recipient are those of Requested.
  bool InTransaction() const;
  // Those of the transaction; nullptr when there are none.
  const AcceptedRecipients* Recipients() const { return InTransaction() ? recipients_.get() : nullptr; }
  // The beginning of what was said to the client last, of its first line; "" when nothing was.
  std::string_view LastReply() const;
  // How the latest recipient of the transaction was judged by greylisting.
  std::optional<GreylistingResult> Greylisting() const {
    return InTransaction() ? greylisting_ : std::nullopt;
  }
  bool ClientIsSecured() const { return TlsActive(); }
  bool ServerIsSecured() const { return ServerTlsActive(); }
  // Of the connections that are open.
  TransferredBytes ClientBytes() const { return BytesOf(Receiver); }
  TransferredBytes ServerBytes() const { return BytesOf(Sender); }
  // For the connection table. -1 after Close.
  std::int32_t Handle() const { return Receiver.Socket().SocketHandle(); }
  std::int64_t BytesReceived() const { return Receiver.Socket().BytesReceived(); }
  std::int64_t BytesSent() const override { return Receiver.Socket().BytesSent(); }
  std::chrono::nanoseconds Age() const;
  double Duration() const;  // the same in days
  IPAddress ClientIP() const override { return Receiver.Socket().RemoteAddress(); }
  std::string HostNameOrUnknown() const { return ClientHostNameOrUnknown(); }

 private:
  enum class Stage { kAdmission, kAdmitted, kClosed };

  bool IsLocalClient() const override;
  std::string ClientHostName() const override { return HostName; }
  bool ClientHostNameIsUnknown() const override { return name_is_unknown_; }
  bool TlsConfigured() const override { return dependencies_.configuration.TLS.WantsCertificate(); }
  bool TlsReady() const override { return dependencies_.tls.for_clients != nullptr; }
  bool TlsActive() const override { return Receiver.Socket().Tls() != nullptr; }
  TlsTexts TlsText() const override;
  bool ServerTlsActive() const override { return Sender.Socket().Tls() != nullptr; }

  // Admission, in this order.
  void AdmitClient(bool tls);
  void AdmitFurther();
  void ClientNameKnown();
  // DNS did not say whether the client has a name.
  void NoteNameFailure();
  bool NameAdmissionApplies() const;
  // Returns whether the session goes on.
  bool AdmitByName();
  void ConnectServer();
  void Refuse(ReplyKind kind, const DecidingList& list = {});

  // What comes before the dialogue: a balancer's header, and what the server has to agree on.
  void ExpectHeader(bool tls);
  void TakeHeader();
  void ApproachServer();
  ClientOrigin Origin() const;
  bool FollowOpening();
  void BeginServerTls();
  void ConfirmClientName();
  void TellClientNames(ClientNames::Answer confirmed);
  bool EndOpening();

  // TLS with the client: begun when the line that asked for it has been taken.
  void BeginTls();
  void TlsStands();
  void EndClient();

  void OnSideEvent(SessionSide& side, SessionSide::Event event) override;
  void OnSideFailure(const SessionSide& side, int error, std::string_view description) override;

  // For who observes sessions. What the dialogue tells is handed on with the session.
  void OnCommand() override;
  void OnOwnReply(const OwnReply& reply) override;
  void OnGreylisting(const GreylistVerdict& verdict, bool callback, const RequestedState& requested) override;
  void OnServerReply(Command command, std::string_view reply) override;
  void OnTransaction(const RequestedState& requested) override;
  void OnRecipient(RecipientResult result, std::string_view mailbox) override;
  void OnContent(std::size_t octets) override;
  void OnMessage(std::string_view reply) override;
  static TransferredBytes BytesOf(const SessionSide& side) {
    return {side.Socket().BytesReceived(), side.Socket().BytesSent()};
  }
  // The client is known, unless that was told before.
  void TellBegin();
  void TellServerLeaves();
  void TellEnd();
  // Who or what ends the session; the first one counts.
  void EndsBy(SessionEnd how) {
    if (!ends_by_) ends_by_ = how;
  }

  // Moves what can be moved, and ends the session when that is due. Never called from inside itself: a send
  // that completes inside its call is only noted.
  void Pump();
  // Runs Pump in the loop's next iteration, unless the session has ended by then.
  void PumpLater();
  void LookForEnd();
  bool MayTakeClientBytes() const;
  void TakeClientBytes();
  // Hands the dialogue up to `limit` of the client's bytes; returns whether so many were there.
  bool TakeUpTo(std::int32_t limit);
  void TakeContent();
  // Sends octets of content that nobody has to look at; returns whether there were any.
  bool PassOctets();
  void TakeServerBytes();
  // Whether nothing more goes to the client: it has closed, or has got the last reply. One that kept us
  // waiting for that still gets what the server said meanwhile.
  bool IsOver() const;

  // What is shown of the session as it goes on.
  void MovesOn() { state_began_ = dependencies_.moment; }
  void DropRecipients() {
    if (recipients_) dependencies_.spare_recipients.GiveBack(std::move(recipients_));
  }

  // What the dialogue wants.
  void ToServer(std::string_view bytes, bool more_follows) override;
  void ToClient(std::string_view reply) override;
  void StartTls(std::string_view last_words) override;
  void ClientIs(const std::optional<ProxiedConnection>& connection) override;
  void StartServerTls() override { opening_->wants_tls = true; }
  void AskForClientNames() override { opening_->wants_names = true; }
  void AskForAddresses(std::string_view host_name) override;
  void CloseServer() override;
  void GoOnWithoutServer() override;
  void EndAfterPause() override;
  void Log(Side side, std::int32_t level, std::string_view text) override;
  void LogFailure(const Error& error) override { dependencies_.log.LogError(error); }

  // Time.
  bool LineHasCome();
  // From now on a client that completes no line is closed after Timeout.
  void ArmTimeout();
  void ArmTimer();
  // Whether the time for it is over; then the session ends.
  bool EndSilent();
  bool EndHandshake();
  bool EndStuck();
  // Logs why the session ends, and ends it. True.
  bool CloseBecause(SessionEnd how, std::string_view reason);
  void TakeLastWords();
  // The wait for the server begins, or begins anew, where its time is bounded.
  void AwaitServer() {
    if (HasServerTimeout()) BeginServerWait();
  }
  bool HasServerTimeout() const { return dependencies_.configuration.Service.ServerTimeout != 0; }
  void BeginServerWait();
  // Whether the server owes something: its connection, or what the dialogue waits for.
  bool IsServerAwaited() const;
  // The time that it has for it.
  std::chrono::seconds ServerPatience() const;
  void CheckServerWait();
  void EndSilentServer();
  // Whether something goes on whose time is bounded: a send, a handshake, or what comes before the dialogue.
  bool NeedsWatch() const { return Receiver.Sending() || Sender.Sending() || handshake_ || opening_; }
  void Watch();

  // The body of an event handler: not run when the session has ended; errors that leave it are logged.
  template <class Body>
  void RunHandler(const char* source, Body body) {
    if (stage_ == Stage::kClosed) return;
    RunLogged(dependencies_.log, source, [&] { EndIfOutOfMemory(body); });
  }
  // A session that gets no memory cannot know how far it came; it ends, and leaves what it had to the others. The
  // exception goes on to who logs it.
  template <class Body>
  void EndIfOutOfMemory(Body body) {
    try {
      body();
    } catch (const std::bad_alloc&) {
      EndOutOfMemory();
      throw;
    }
  }
  void EndOutOfMemory();
  static void Dismiss(SessionDependencies& dependencies, std::int32_t requestID, bool tls);
  void TakeSideEvent(SessionSide& side, SessionSide::Event event);

  SessionDependencies& dependencies_;
  std::string key_;
  SessionId id_;
  Stage stage_ = Stage::kAdmission;
  bool begin_told_ = false;
  std::optional<SessionEnd> ends_by_;

  SessionSide Receiver;  // towards the client
  SessionSide Sender;    // towards the real server
  Dialogue dialogue_;

  // A TLS handshake of the client, from the moment that it is asked for until it is done.
  struct Handshake {
    std::string last_words;
    MonotonicTime began{};
  };
  std::unique_ptr<Handshake> handshake_;

  // In the phases kProxyHeader and kPreface.
  struct Opening {
    bool tls_port = false;  // of the client
    MonotonicTime end{};    // when the time for it is over
    MonotonicTime handshake_end = MonotonicTime::max();
    bool wants_tls = false;
    bool wants_names = false;
  };
  std::unique_ptr<Opening> opening_;
  bool is_balancers_own_ = false;  // the balancer has spoken for itself

  // With ServerTimeout, from the first time that something was waited for. The timer runs while that is so, and
  // finds out by itself when it no longer is: a wait is mostly over long before its first tick.
  struct ServerWait {
    MonotonicTime began{};
    std::optional<std::int64_t> progress;  // of what was sent to the server, at the last tick of this wait
    Timer timer;
  };
  std::unique_ptr<ServerWait> server_wait_;

  std::chrono::seconds TimeoutSpan{0};  // 0: no time-out
  MonotonicTime LastActivity{};
  std::int64_t looked_to_ = 0;  // how far the client's bytes have been searched for a line's end
  MonotonicTime StartTime{};
  MonotonicTime state_began_{};  // while the server's connection is made, to the nanosecond
  bool Whitelisted = false;
  bool HostNameKnown = false;
  bool name_is_temporary_ = false;  // DNS was silent or failed
  bool name_is_unknown_ = false;    // likewise, and by DnsFailure that is not to have none
  std::optional<GreylistingResult> greylisting_;
  mutable std::optional<bool> IsLocal;  // asked for once
  std::string HostName;
  std::unique_ptr<AcceptedRecipients> recipients_;
  ShortText<55> last_reply_;
  LookupId name_lookup_ = 0;            // of the HELO or EHLO that waits, or of the client's name
  std::unique_ptr<Timer> pause_;        // the session ends when it has passed
  std::unique_ptr<Timer> timeout_;      // until the server is connected
  std::unique_ptr<Timer> stall_timer_;  // while NeedsWatch(), until its next tick
};

}  // namespace trabex
