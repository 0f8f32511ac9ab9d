// The protocol of one session, without a socket, a loop or a timer: bytes of the client, bytes of the server,
// answers and ends go in, and actions come out. The program, a test and a fuzzer use the same object.
//
// Commands go one at a time: the next one is taken when the complete reply to it has gone to the client, so
// no reply is ever taken for that of another command. The phase (dialogue_phase.h) says who may speak next.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "base/clock.h"
#include "base/error.h"
#include "config/configuration.h"
#include "match/decision_trace.h"
#include "proxy/dialogue/client_command_filter.h"
#include "proxy/dialogue/dialogue_events.h"
#include "proxy/dialogue/dialogue_state.h"
#include "proxy/dialogue/greylist_check.h"
#include "proxy/dialogue/policy_replies.h"
#include "proxy/dialogue/proxy_header.h"
#include "proxy/dialogue/reply_assembler.h"
#include "proxy/dialogue/server_approach.h"
#include "proxy/dialogue/server_preface.h"
#include "proxy/dialogue/server_reply_filter.h"
#include "proxy/dialogue/session_facts.h"

namespace trabex {

// What a dialogue asks its owner to do: each at once, in the order of the calls. Texts are valid during the
// call only.
class DialogueActions : public DialogueEvents {
 public:
  enum class Side { kClient, kServer };

  // Sends a command line, or content. With `more_follows` the next bytes come soon, and may share a packet.
  virtual void ToServer(std::string_view bytes, bool more_follows) = 0;
  // Sends replies, or lines of one, with their line ends.
  virtual void ToClient(std::string_view reply) = 0;
  // Sends the reply `last_words`, with its line end, in the clear. Every other byte from now on, in either
  // direction, goes through TLS with the client, also one that was received and not taken;
  // Dialogue::OnSecured is called when it stands. When it fails the session ends.
  virtual void StartTls(std::string_view last_words) = 0;
  // A balancer has said whose connection it is; nothing: its own. From now on the client is that one.
  virtual void ClientIs(const std::optional<ProxiedConnection>& connection) = 0;
  // Begins TLS with the server: every other byte from now on, in either direction, goes through it, also one
  // that was received and not taken. Dialogue::OnServerSecured is called when it stands. When it fails, that
  // is the server's end.
  virtual void StartServerTls() = 0;
  // Looks what DNS says of the client; Dialogue::OnClientNames takes it.
  virtual void AskForClientNames() = 0;
  // Looks for the addresses of `host_name`; Dialogue::OnAddresses takes them.
  virtual void AskForAddresses(std::string_view host_name) = 0;
  // Closes the server's connection; the client's goes on.
  virtual void CloseServer() = 0;
  // The server gets nothing more; the client stays as one that was refused until either hangs up, or until the
  // dialogue ends.
  virtual void GoOnWithoutServer() = 0;
  // Takes nothing more of the client, and ends the session a short time later.
  virtual void EndAfterPause() = 0;
  // A line for the protocol log of that side, at one of the levels of log_level: what was received or sent,
  // or what happened.
  virtual void Log(Side side, std::int32_t level, std::string_view text) = 0;
  virtual void LogFailure(const Error& error) = 0;
};

class Dialogue {
 public:
  // How the server's connection ended.
  enum class ServerEnd : std::uint8_t { kClosed, kFailed };

  // All references outlive the dialogue. `greylisting` may be nullptr: then nothing is greylisted. A test may
  // begin in any state. `trace`, if there is one, is told what decides.
  Dialogue(const Configuration& configuration, const Clock& clock, const SessionFacts& facts,
           GreylistCheck* greylisting, DialogueState state = {}, DecisionTrace* trace = nullptr);

  // In kEnding the session is over as soon as what was said has been sent.
  Phase phase() const { return state_.phase; }
  const DialogueState& State() const { return state_; }
  ClientBytes Expected() const { return ExpectedBytes(state_.phase); }

  // The client's connection is that of a balancer, so that nothing can be said before its header. Called
  // before anything of the client is taken.
  void ExpectHeader() { Enter(PhaseEvent::kHeaderExpected); }
  // The client came to a port where TLS is spoken from the first byte on, so that it can read nothing before.
  // Called before anything else.
  void ExpectTls() { Enter(PhaseEvent::kTlsExpected); }
  // TLS with the client stands.
  void OnSecured() { Enter(PhaseEvent::kSecured); }

  // Takes one command line, content, or a balancer's header from the front of `bytes`, which are the client's
  // next ones; returns how many it has used. 0: nothing is taken now, or a line, an end of content or a
  // header has not come whole.
  std::size_t OnClientBytes(std::string_view bytes, DialogueActions& actions);
  // How many of the client's next bytes are for the server whatever they are. The session may send them by itself,
  // and tells OnOctetsPassed of it, instead of giving them to OnClientBytes. 0: it may not.
  std::uint64_t OctetsToPass() const {
    return Expected() == ClientBytes::kContent ? state_.content.OctetsLeft() : 0;
  }
  void OnOctetsPassed(std::size_t count, DialogueActions& actions);
  // What is to be logged of the client that has closed; "" for nothing.
  std::string_view LostWithClient() const;
  // The server is connected, and something comes before its greeting.
  void OnServerConnected(ServerApproach approach, DialogueActions& actions);
  // TLS with the server stands.
  void OnServerSecured(DialogueActions& actions);
  // The answer to AskForClientNames.
  void OnClientNames(const ProxiedConnection& connection, const ClientNames& names, DialogueActions& actions);
  // There is no session with this server, for the given reason: that is logged, the client is told so, and
  // the session ends.
  void RefuseServer(std::string_view reason, DialogueActions& actions);
  // Takes what the server said: whole replies are relayed, the rest is kept until it is whole.
  void OnServerBytes(std::string bytes, DialogueActions& actions);
  // Whether the server, which is connected, owes something: what it says next is waited for, or its end.
  bool AwaitsServer() const;
  // Whether that is the reply to the end of a message's content.
  bool AwaitsReplyToContent() const;
  // The server has owed it for too long. The client is told so, unless it has said QUIT, and the session ends.
  void OnServerSilent(DialogueActions& actions);
  // The answer to AskForAddresses.
  void OnAddresses(const HostAddresses& answer, DialogueActions& actions);
  // The server's connection has ended. Its last words reach the client, even if they broke off inside a line;
  // when it failed, a reply of the proxy that says so follows them.
  void OnServerEnd(ServerEnd how, DialogueActions& actions);
  // Sends the client the proxy's own reply `kind`; the table of replies says what becomes of the session. For
  // replies that refuse no command, such as that of a service that stops. A client whose TLS does not stand
  // yet could not read it: the reply is logged, and the session ends.
  void Say(ReplyKind kind, DialogueActions& actions, const DecidingList& list = {});
  // Whether the client could read a reply now.
  bool MaySpeak() const;

 private:
  std::size_t TakeHeader(std::string_view bytes, DialogueActions& actions);
  std::size_t TakeLine(std::string_view bytes, DialogueActions& actions);
  std::size_t TakeContent(std::string_view bytes, DialogueActions& actions);
  // Nothing more of the message goes to the server, which never gets its end. The client may send the rest.
  void BreakOffMessage(DialogueActions& actions);
  // Tells the client so when the rest has come, and ends the session.
  void RefuseSize(DialogueActions& actions);
  // Octets of the message so far, without those of the line with the single dot. `ended`: it has come whole.
  std::uint64_t MessageOctets(bool ended) const;
  void Act(LineDecision&& decision, DialogueActions& actions);
  void Forward(LineDecision& decision, DialogueActions& actions);

  void TakePrefaceBytes(DialogueActions& actions);
  void Follow(const ServerPreface::Step& step, DialogueActions& actions);

  void RelayReplies(DialogueActions& actions);
  void RelayReply(std::string_view reply, DialogueActions& actions);
  void TellOf(std::string_view reply, const ReplyDecision& decision, DialogueActions& actions) const;
  // The reply that counts: some servers (OpenSMTPD) take one EHLO in a session and refuse the next with 503;
  // what they said to the earlier one still holds then.
  std::string ReplyThatCounts(std::string reply);
  bool RelayWholeLines(DialogueActions& actions);
  void EndWithoutServer(DialogueActions& actions);
  // `sent`, `ends`: as OwnReply has them.
  void TellOfOwn(ReplyKind kind, std::string_view reply, const DecidingList& list, bool sent, bool ends,
                 DialogueActions& actions) const;

  void Enter(PhaseEvent event);
  // For an event after which `octets` follow; with 0 of them the content is complete at once.
  void EnterOctets(PhaseEvent event, std::uint64_t octets);

  const Configuration& configuration_;
  const SessionFacts& facts_;
  ClientCommandFilter commands_;
  ServerReplyFilter replies_;
  ReplyAssembler assembler_;
  std::unique_ptr<ServerPreface> preface_;  // in kPreface
  DialogueState state_;
};

}  // namespace trabex
