// A session's dialogue without its sockets, for the tests of what decides in it: scripts (script/README.md)
// run through it step by step, and a test may look at its state, and set it, in between.
//
// Everything that the dialogue does must be in the script, in its order. Where the reply to a line
// is left out and another line comes, the server has refused the former; the lines of a reply count when its
// last one has come. Of what only a session does there is "wait 500" and "closed C" where it is to end after
// that pause.
//
// "C starts TLS" stands where the dialogue lets TLS begin.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "proxy/dialogue/dialogue.h"
#include "script/escapes.h"
#include "script/script.h"
#include "support/fake_clock.h"

namespace trabex {

ExpressionList ListOf(std::initializer_list<std::string_view> patterns);
ReplacementTable TableOf(std::initializer_list<ReplacementTable::Rule> rules);
// One rule that replaces the whole reply.
cReplaces WholeReply(std::string name, std::string text);
// One rule that appends to the reply, so that the order of several shows.
cReplaces Appended(std::string name, std::string text);

class FakeFacts final : public SessionFacts {
 public:
  IPAddress ClientIP() const override { return ip; }
  bool IsLocalClient() const override { return local; }
  std::string ClientHostName() const override { return host; }
  bool ClientHostNameIsUnknown() const override { return host_is_unknown; }
  std::int64_t BytesSent() const override { return sent; }
  bool TlsConfigured() const override { return tls_configured; }
  bool TlsReady() const override { return tls_ready; }
  bool TlsActive() const override { return tls_active; }
  TlsTexts TlsText() const override { return tls; }
  bool ServerTlsActive() const override { return server_tls_active; }

  IPAddress ip = IPAddress::IPv4(0xC0000207);  // 192.0.2.7
  std::string host = "mail.client.test";
  bool host_is_unknown = false;
  bool local = false;
  std::int64_t sent = 0;
  bool tls_configured = false;
  bool tls_ready = false;
  bool tls_active = false;
  TlsTexts tls;
  bool server_tls_active = false;
};

class FakeGreylisting final : public GreylistCheck {
 public:
  GreylistVerdict ShouldDefer(std::optional<std::string_view> host_name, const IPAddress& ip,
                              std::string_view sender, std::string_view recipient) override;

  bool delays = false;
  std::vector<std::string> asked;  // "host|ip|sender|recipient"
};

// The default settings of the machine proxy.test, with the domain local.test as the local one.
Configuration TestConfiguration();

using script::Escape;
using script::Unescape;

// A dialogue, the actions that it asks for, and a state that a test may set before each step.
class TestDialogue final : private DialogueActions {
 public:
  // The server has greeted.
  TestDialogue() { state.phase = Phase::kCommand; }
  explicit TestDialogue(const Configuration& settings) : configuration(settings) {
    state.phase = Phase::kCommand;
  }
  TestDialogue(const TestDialogue&) = delete;
  TestDialogue& operator=(const TestDialogue&) = delete;

  // Runs the script; what differs fails the test with the dialogue so far.
  void Run(std::string_view script);
  // What followed the end of the content in the latest C+ of a script; nothing when the content goes on.
  const std::optional<std::string>& LeftOver() const { return left_over_; }
  // The look-up that was waited for has an answer.
  void Answer(const HostAddresses& answer);
  // The server has closed.
  void EndServer();
  // EHLO, accepted by a server that offers CHUNKING and XEXCH50.
  void Greet();
  // Greet and MAIL FROM:<s@sender.test>.
  void GreetAndMail();
  // GreetAndMail and RCPT TO:<u@local.test>.
  void GreetMailAndRcpt();
  // TLS with the client can begin.
  void OfferTls();
  // The client came to the port where TLS is spoken from the first byte on.
  void ExpectTls();
  // The client's connection is that of a balancer, which then sends `bytes`; returns how many are its header.
  void ExpectHeader();
  std::size_t TakeHeader(std::string_view bytes);
  // The server is connected, and has to agree on something; with `tls`, on TLS before its greeting, which
  // then stands.
  void BeginPreface(bool tls);
  // TLS with the client stands.
  void Secure();
  // The client was not admitted: only the proxy replies to it.
  void Refuse();
  // The client gets the proxy's own reply; the outcome as a script has it, lines joined by "; ".
  std::string Say(ReplyKind kind);

  bool Greeted() const { return state.transaction > Transaction::kNoGreeting; }
  bool TransactionOpen() const { return state.transaction >= Transaction::kOpen; }
  bool InChunks() const { return state.transaction >= Transaction::kChunks; }
  bool TakesContent() const { return ExpectedBytes(state.phase) == ClientBytes::kContent; }
  bool Discards() const { return ExpectedBytes(state.phase) == ClientBytes::kDiscarded; }

  // The outcome of one client line (without its CR LF) as a script has it, lines joined by "; ".
  std::string Says(std::string_view client_line);
  // The same lines and replies, with what the filters decide about them; the dialogue goes on accordingly.
  LineDecision Line(std::string_view line_with_end);
  ReplyDecision Reply(std::string_view reply);
  // What the client sends where content is expected.
  void Content(std::string_view bytes) { OutcomeOfContent(bytes); }

  Configuration configuration = TestConfiguration();
  FakeClock clock;
  FakeFacts facts;
  FakeGreylisting greylisting;
  DialogueState state;
  std::optional<ProxiedConnection> proxied;  // what a balancer's header has said
  ClientCommandFilter commands{configuration, clock, facts, &greylisting};
  ServerReplyFilter replies{configuration, clock, facts};

 private:
  void ToServer(std::string_view bytes, bool more_follows) override;
  void ToClient(std::string_view reply) override;
  void AskForAddresses(std::string_view host_name) override;
  void StartTls(std::string_view last_words) override;
  void ClientIs(const std::optional<ProxiedConnection>& connection) override { proxied = connection; }
  void StartServerTls() override { actions_.push_back("S starts TLS"); }
  void AskForClientNames() override {}
  void GoOnWithoutServer() override {}
  void CloseServer() override {}
  void EndAfterPause() override;
  void Log(Side side, std::int32_t level, std::string_view text) override;
  void LogFailure(const Error&) override {}

  // What one step makes of the state, and what it asks for.
  template <class Step>
  std::vector<std::string> Outcome(Step step);
  std::vector<std::string> OutcomeOfLine(std::string_view line);
  std::vector<std::string> OutcomeOfContent(std::string_view bytes);
  std::vector<std::string> OutcomeOfReply(std::string_view reply);
  // Plays one step of a script, or takes it as the next outcome; returns "" or what is wrong.
  std::string Take(const script::Step& step);
  void Send(const script::Step& step);

  std::string reply_;                 // lines of a server reply that goes on
  std::vector<std::string> outcome_;  // what the script has not named yet
  std::vector<std::string> actions_;  // of the step under way
  std::optional<std::string> left_over_;
  bool content_ = false;  // the step under way takes content
};

}  // namespace trabex
