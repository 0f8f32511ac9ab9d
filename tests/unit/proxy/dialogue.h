// A session's two filters without its sockets, and dialogues to run through them.
//
// A script is a dialogue, one line each:
//   C: text      the client sends the line
//   S: text      the server sends it; with a "-" after the code, the reply goes on in the next S: line
//   C+ text      the client sends message content, without a line end
//   -> text      the server gets the line (or the whole header that opens the content)
//   *> text      the server gets content
//   <- text      the client gets the line
//   wait name    a name is looked up; the test answers with Dialogue::Answer
//   break text   the session ends without a reply, and this is logged
//   close        the session ends behind the reply
//   pause        it ends after a pause: too many commands out of order
//   end          the content is complete
//   ambiguous    the content has a dot that servers read in different ways
//   # text       a remark
// In every text \r \n \t \0 \\ and \xHH stand for bytes. Everything that the filters do must be in the
// script.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "proxy/dialogue/client_command_filter.h"
#include "proxy/dialogue/server_reply_filter.h"
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
  std::int64_t BytesReceived() const override { return received; }
  std::int64_t BytesSent() const override { return sent; }
  bool Refused() const override { return refused; }

  IPAddress ip = IPAddress::IPv4(0xC0000207);  // 192.0.2.7
  std::string host = "mail.client.test";
  bool local = false;
  bool refused = false;
  std::int64_t received = 0;
  std::int64_t sent = 0;
};

class FakeGreylisting final : public GreylistCheck {
 public:
  bool ShouldDefer(std::string_view host_name, const IPAddress& ip, std::string_view sender,
                   std::string_view recipient) override;

  bool delays = false;
  std::vector<std::string> asked;  // "host|ip|sender|recipient"
};

// The default settings of the machine proxy.test, with the domain local.test as the local one.
Configuration TestConfiguration();

// Bytes written with the escapes of a script, and the way back.
std::string Unescape(std::string_view text);
std::string Escape(std::string_view bytes);

class Dialogue {
 public:
  Dialogue() = default;
  explicit Dialogue(const Configuration& settings) : configuration(settings) {}
  Dialogue(const Dialogue&) = delete;
  Dialogue& operator=(const Dialogue&) = delete;

  // Runs the script; what differs fails the test with the dialogue so far.
  void Run(std::string_view script);
  // The look-up that was waited for has an answer.
  void Answer(const AddressAnswer& answer);
  // EHLO, accepted by a server that offers CHUNKING and XEXCH50.
  void Greet();
  // Greet and MAIL FROM:<s@sender.test>.
  void GreetAndMail();
  // GreetAndMail and RCPT TO:<u@local.test>.
  void GreetMailAndRcpt();

  // The outcome of one client line (without its CR LF) as a script has it, lines joined by "; ".
  std::string Says(std::string_view client_line);

  Configuration configuration = TestConfiguration();
  FakeClock clock;
  FakeFacts facts;
  FakeGreylisting greylisting;
  SessionState state;
  ClientCommandFilter commands{configuration, clock, facts, state, &greylisting};
  ServerReplyFilter replies{configuration, clock, facts, state};

 private:
  std::vector<std::string> Outcome(const LineDecision& decision);
  std::vector<std::string> Outcome(const ReplyDecision& decision);
  std::vector<std::string> TakeContent(std::string_view bytes);

  std::string reply_;                 // lines of a server reply that goes on
  std::vector<std::string> outcome_;  // what the script has not named yet
};

}  // namespace trabex
