// TLS towards the client, as the dialogue decides about it: who is offered STARTTLS, who must use it, what is
// forgotten when it begins.
#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <string_view>

#include "support/openings.h"
#include "unit/proxy/dialogue.h"

namespace trabex {
namespace {

constexpr const char* kStartTls = "C: STARTTLS\n<- 220 2.0.0 Ready to start TLS.\nC starts TLS";

// A dialogue with a client that may begin TLS.
class TlsDialogue {
 public:
  TlsDialogue() {
    dialogue.OfferTls();
    // A fact of the settings, and the setting itself.
    dialogue.configuration.TLS.Certificate = {{"mx.pem", "mx.pem"}};
  }
  // EHLO, accepted by a server that offers AUTH; whether the client is offered STARTTLS and AUTH.
  void Greet(bool starttls, bool auth) {
    std::string offers;
    if (auth) offers += "\n<- 250" + std::string(starttls ? "-" : " ") + "AUTH PLAIN";
    if (starttls) offers += "\n<- 250 STARTTLS";
    dialogue.Run("C: EHLO client.test\n-> EHLO client.test\nS: 250-server.test\nS: 250 AUTH PLAIN\n<- 250" +
                 std::string(offers.empty() ? " " : "-") + "server.test" + offers);
  }

  TestDialogue dialogue;
};

TEST(StartTls, MakesEverythingBeforeForgotten) {
  TlsDialogue t;
  TestDialogue& d = t.dialogue;
  t.Greet(true, false);
  d.Run(Mail("s@sender.test") + R"(
    C: RSET
    -> RSET
    S: 250 ok
    <- 250 ok)");
  d.Run(kStartTls);
  EXPECT_EQ(d.state.phase, Phase::kCommand);
  EXPECT_EQ(d.state.transaction, Transaction::kNoGreeting);
  EXPECT_EQ(d.state.requested.HeloDomain, "");
  EXPECT_FALSE(d.state.requested.EhloUsed);
  EXPECT_TRUE(d.state.offered.Extensions.Lines().empty());
  EXPECT_EQ(d.state.requested.TransactionCount, 1) << "counters stay";
  // Only a greeting and what may come before one is taken.
  d.Run(R"(
    C: MAIL FROM:<s@sender.test>
    <- 503 Bad sequence of commands.
    C: NOOP
    -> NOOP
    S: 250 ok
    <- 250 ok
    C: EHLO again.test
    -> EHLO again.test
    S: 250-server.test
    S: 250 AUTH PLAIN
    <- 250-server.test
    <- 250 AUTH PLAIN
    C: MAIL FROM:<s@sender.test>
    -> MAIL FROM:<s@sender.test>)");
}

TEST(StartTls, TheHeaderNamesTls) {
  TlsDialogue t;
  TestDialogue& d = t.dialogue;
  t.Greet(true, false);
  d.Run(kStartTls);
  t.Greet(false, true);
  d.Run(R"(
    C: AUTH PLAIN
    -> AUTH PLAIN
    S: 334 go
    <- 334 go
    C: AHgAeQ==
    -> AHgAeQ==
    S: 235 welcome
    <- 235 welcome
)" + Mail("s@sender.test") +
        Rcpt() + R"(
    C: DATA
    -> DATA
    S: 354 go on
    <- 354 go on
    -> Received: from client.test (mail.client.test [192.0.2.7]) by proxy.test
    ->       with ESMTPSA tls TLS_AES_256_GCM_SHA384; *)");
}

TEST(StartTls, IsOnlyTakenWhereItWasOffered) {
  for (const char* line : {"STARTTLS", "starttls", "STARTTLS x"}) {
    const std::string command = std::string("C: ") + line + "\n<- 502 5.5.1 Command not implemented.";
    {
      TlsDialogue no_greeting;
      no_greeting.dialogue.Run(command);
      EXPECT_EQ(no_greeting.dialogue.state.requested.BadSequenceCount, 1);
    }
    TlsDialogue t;
    t.Greet(true, false);
    // The latest greeting counts.
    t.dialogue.Run("C: HELO client.test\n-> HELO client.test\nS: 250 ok\n<- 250 ok\n" + command);
    TlsDialogue hidden;
    hidden.dialogue.configuration.RemoveSMTPExtensionsRemote = ListOf({"STARTTLS"});
    hidden.Greet(false, false);
    hidden.dialogue.Run(command);
    TlsDialogue active;
    active.dialogue.facts.tls_active = true;
    active.Greet(false, true);
    active.dialogue.Run(command);
    // However it came to be offered.
    active.dialogue.state.offered.Extensions.AddExtension("STARTTLS");
    active.dialogue.Run(command);
    // Without a certificate in the settings nothing is as if there were one.
    TestDialogue without;
    without.configuration.AddSMTPExtensionsRemote = ListOf({"STARTTLS"});
    without.Run("C: EHLO a.test\n-> EHLO a.test\nS: 250 ok\n<- 250-ok\n<- 250 STARTTLS\n" + command);
  }
}

TEST(StartTls, IsCheckedInThisOrder) {
  TlsDialogue t;
  TestDialogue& d = t.dialogue;
  t.Greet(true, false);
  d.Run("C+ STARTTLS\\x01\\r\\n\n<- 500 5.5.2 Invalid character in command line.");
  d.Run("C: STARTTLS now\n<- 501 5.5.4 STARTTLS takes no parameters.");
  EXPECT_EQ(d.state.requested.BadSequenceCount, 2);
  // Blanks are none.
  d.state.transaction = Transaction::kOpen;
  d.facts.tls_ready = false;
  d.Run("C+ STARTTLS \\t\\r\\n\n<- 503 5.5.1 Bad sequence of commands.");
  d.Run("C: STARTTLS x\n<- 501 5.5.4 STARTTLS takes no parameters.");
  d.state.transaction = Transaction::kGreeted;
  d.state.login.ever = true;
  d.Run("C: STARTTLS\n<- 503 5.5.1 Bad sequence of commands.");
  d.state.login.ever = false;
  EXPECT_EQ(d.state.requested.BadSequenceCount, 5);
  // No certificate is loaded any more, and more comes with the command.
  d.Run("C+ STARTTLS\\r\\nNOOP\\r\\n\n<- 454 4.7.0 TLS not available due to temporary reason.");
  EXPECT_EQ(d.state.requested.BadSequenceCount, 5);
  d.facts.tls_ready = true;
  d.Run(kStartTls);
}

TEST(StartTls, HasKeysForItsPlaceInTheOrder) {
  const struct {
    Transaction transaction;
    bool login;
    const char* key;
  } rows[] = {
      {Transaction::kNoGreeting, false, "BadSeq.NoHelo"}, {Transaction::kOpen, false, "BadSeq.Transaction"},
      {Transaction::kChunks, false, "BadSeq.BDAT"},       {Transaction::kGreeted, true, "BadSeq.Transaction"},
      {Transaction::kOpen, true, "BadSeq.Transaction"},
  };
  for (const auto& row : rows) {
    TlsDialogue t;
    t.Greet(true, false);
    t.dialogue.state.transaction = row.transaction;
    t.dialogue.state.login.ever = row.login;
    const std::string key = std::string("STARTTLS.") + row.key;
    t.dialogue.configuration.ResponseChanges.Add(WholeReply(key, "503 " + key));
    EXPECT_EQ(t.dialogue.Says("STARTTLS"), "<- 503 " + key);
  }
}

// A byte behind the command comes from somebody in between as easily as from the client.
TEST(StartTls, AByteBehindItEndsTheSession) {
  for (const char* behind : {"RSET\\r\\n", "M", "\\r\\n", "\\0", "\\x16\\x03\\x01\\x00"}) {
    TlsDialogue t;
    t.Greet(true, false);
    t.dialogue.Run("C+ STARTTLS\\r\\n" + std::string(behind) +
                   "\n<- 554 5.5.0 Data behind STARTTLS.\nclosed C");
    EXPECT_EQ(t.dialogue.state.phase, Phase::kEnding);
  }
}

TEST(StartTls, NothingChangesTheReplyThatBeginsIt) {
  TlsDialogue t;
  t.Greet(true, false);
  for (const char* key : {"", "220", "STARTTLS.220", "TLS.Begins", "."}) {
    t.dialogue.configuration.ResponseChanges.Add(WholeReply(key, "250 changed"));
  }
  t.dialogue.configuration.EnhancedStatusCodes = false;
  t.dialogue.Run("C: STARTTLS\n<- 220 Ready to start TLS.\nC starts TLS");
}

TEST(StartTls, LeavesTheLoginWithTheServer) {
  const struct {
    const char* replies;
    bool refused;
    bool latest;
  } rows[] = {
      {"S: 235 welcome\n<- 235 welcome", true, true},
      {"S: 535 no\n<- 535 no", false, false},
      {"S: 235-two\nS: 535 codes\n<- 235-two\n<- 535 codes", false, false},
      {"S: 334 go\n<- 334 go\nC: eA==\n-> eA==\nS: 235 welcome\n<- 235 welcome", true, true},
      {"S: 334 go\n<- 334 go\nC: *\n-> *\nS: 501 no\n<- 501 no", false, false},
      // A server that needs no data after all.
      {"S: 334 go\n<- 334 go\nS: 235 welcome\n<- 235 welcome", true, true},
      {"S: 235 welcome\n<- 235 welcome\nC: AUTH PLAIN x\n-> AUTH PLAIN x\nS: 503 no\n<- 503 no", true, false},
      // No reply to AUTH.
      {"S: 535 no\n<- 535 no\nC: NOOP\n-> NOOP\nS: 235 welcome\n<- 235 welcome", false, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.replies);
    TlsDialogue t;
    t.dialogue.configuration.TLS.RequireForAUTH = 0;
    t.Greet(true, true);
    t.dialogue.Run(std::string("C: AUTH PLAIN AHgAeQ==\n-> AUTH PLAIN AHgAeQ==\n") + row.replies);
    EXPECT_EQ(t.dialogue.state.login.latest, row.latest);
    t.dialogue.Run(row.refused ? "C: STARTTLS\n<- 503 5.5.1 Bad sequence of commands." : kStartTls);
  }
}

TEST(StartTls, WhatTheServerSaysMeanwhileIsForTls) {
  TlsDialogue t;
  TestDialogue& d = t.dialogue;
  t.Greet(true, false);
  ASSERT_EQ(d.Says("STARTTLS"), "<- 220 2.0.0 Ready to start TLS.; C starts TLS");
  d.Run("S: 421 time is up\n<- 421 time is up");
  EXPECT_EQ(d.state.phase, Phase::kStartTls);
  EXPECT_EQ(d.state.transaction, Transaction::kNoGreeting);
  d.Say(ReplyKind::kShutdown);
  EXPECT_EQ(d.state.phase, Phase::kEnding);
}

TEST(StartTls, ARefusedSessionAnswersItLikeEverythingElse) {
  TlsDialogue t;
  t.dialogue.Refuse();
  t.dialogue.Run("C: STARTTLS\n<- 503 Bad sequence of commands.");
  TestDialogue without;
  without.Refuse();
  without.Run("C: STARTTLS\n<- 502 5.5.1 Command not implemented.");
}

// A reload may take the certificate away, or the setting itself; the client did nothing wrong.
TEST(StartTls, IsNotAvailableWhenTheCertificateHasGoneSinceItWasOffered) {
  for (const bool configured : {true, false}) {
    TlsDialogue t;
    TestDialogue& d = t.dialogue;
    t.Greet(true, false);
    d.facts.tls_ready = false;
    d.facts.tls_configured = configured;
    d.Run(R"(
      C: STARTTLS x
      <- 501 5.5.4 STARTTLS takes no parameters.
      C: STARTTLS
      <- 454 4.7.0 TLS not available due to temporary reason.
)" + Mail("s@sender.test") +
          R"(
      C: STARTTLS
      <- 503 5.5.1 Bad sequence of commands.
      C: RSET
      -> RSET
      S: 250 ok
      <- 250 ok)");
    EXPECT_EQ(d.state.requested.BadSequenceCount, 2);
    // Once the client has been told otherwise, it is a command like any that we do not know.
    t.Greet(false, !configured);
    d.Run("C: STARTTLS\n<- 502 5.5.1 Command not implemented.");
  }
}

// --- who must use it

TEST(TlsRequired, LetsAClientDoNothingElseBefore) {
  constexpr const char* kRequired = "<- 530 5.7.0 Must issue a STARTTLS command first.";
  for (const bool local : {false, true}) {
    for (const std::int32_t require : {0, 1, 2, 3}) {
      TlsDialogue t;
      TestDialogue& d = t.dialogue;
      d.facts.local = local;
      d.configuration.TLS.Require = require;
      d.configuration.MaxBadSeq = 1000;
      const bool must = (require & (local ? 1 : 2)) != 0;
      t.Greet(true, false);
      EXPECT_EQ(d.Says("NOOP"), "-> NOOP");
      for (const char* line : {"MAIL FROM:<s@sender.test>", "RCPT TO:<u@local.test>", "DATA", "RSET",
                               "VRFY x", "HELP", "XANY", "ETRN x", "AUTH PLAIN x", "HELO client.test", ""}) {
        EXPECT_EQ(d.Says(line) == kRequired, must) << line;
        d.state.transaction = Transaction::kGreeted;
        d.state.phase = Phase::kCommand;
      }
      EXPECT_EQ(d.state.requested.BadSequenceCount > 5, must);
      // The octets of a refused chunk are dropped as ever.
      if (must) {
        d.Run("C: BDAT 5\n" + std::string(kRequired) + "\nC+ 12345");
        EXPECT_EQ(d.state.phase, Phase::kCommand);
      }
      // What is never forwarded, and what nobody can read, comes first.
      EXPECT_EQ(d.Says("TURN"), "<- 502 5.5.1 Command not implemented.");
      EXPECT_EQ(d.Says("NOOP \x01"), "<- 500 5.5.2 Invalid character in command line.");
      EXPECT_EQ(d.Says("QUIT"), "-> QUIT");
    }
  }
}

TEST(TlsRequired, IsFulfilledByTls) {
  TlsDialogue t;
  t.dialogue.configuration.TLS.Require = 3;
  EXPECT_EQ(t.dialogue.Says("DATA"), "<- 530 5.7.0 Must issue a STARTTLS command first.")
      << "before the order";
  t.Greet(true, false);
  t.dialogue.Run(kStartTls);
  t.Greet(false, true);
  EXPECT_EQ(t.dialogue.Says("MAIL FROM:<s@sender.test>"), "-> MAIL FROM:<s@sender.test>");
}

// A certificate that cannot be loaded, or none at all, does not make what was to be under TLS go in the clear.
TEST(TlsRequired, HoldsWhetherOrNotTlsCanBegin) {
  for (const bool configured : {true, false}) {
    TestDialogue d;
    d.facts.tls_configured = configured;
    d.configuration.TLS.Require = 2;
    d.Run(Ehlo() + R"(
      C: MAIL FROM:<s@sender.test>
      <- 530 5.7.0 Must issue a STARTTLS command first.
      C: STARTTLS
      <- 502 5.5.1 Command not implemented.)");
  }
}

TEST(TlsRequired, ARefusedSessionIsToldThatItIs) {
  TlsDialogue t;
  t.dialogue.configuration.TLS.Require = 3;
  t.dialogue.Refuse();
  t.dialogue.Run("C: MAIL FROM:<a@b>\n<- 503 Bad sequence of commands.");
}

TEST(AuthOverTls, IsNeitherOfferedNorTakenInTheClear) {
  for (const bool local : {false, true}) {
    for (const std::int32_t require : {0, 1, 2, 3}) {
      for (const bool ready : {true, false}) {
        TlsDialogue t;
        TestDialogue& d = t.dialogue;
        d.facts.local = local;
        d.facts.tls_ready = ready;
        d.configuration.TLS.RequireForAUTH = require;
        const bool must = (require & (local ? 1 : 2)) != 0;
        t.Greet(ready, !must);
        d.Run(
            must
                ? "C: AUTH PLAIN x\n<- 538 5.7.11 Encryption required for requested authentication mechanism."
                : "C: AUTH PLAIN x\n-> AUTH PLAIN x\nS: 535 no\n<- 535 no");
        EXPECT_EQ(d.state.requested.BadSequenceCount, 0);
      }
    }
  }
}

TEST(AuthOverTls, ComesBehindTheChecksOfOrder) {
  TlsDialogue t;
  EXPECT_EQ(t.dialogue.Says("AUTH PLAIN x"), "<- 503 Bad sequence of commands.");
  t.Greet(true, false);
  t.dialogue.Run(kStartTls);
  t.Greet(false, true);
  EXPECT_EQ(t.dialogue.Says("AUTH PLAIN x"), "-> AUTH PLAIN x");
}

TEST(AuthOverTls, IsAsBeforeWithoutACertificateInTheSettings) {
  TestDialogue d;
  d.Run(Ehlo({"REQUIRETLS", "AUTH=LOGIN", "AUTH PLAIN EXTERNAL SCRAM-SHA-1 SCRAM-SHA-1-PLUS"}) + R"(
    C: AUTH PLAIN x
    -> AUTH PLAIN x)");
}

// --- the reply to EHLO

// The lines of the reply to the client behind the first one, joined by "|".
std::string Offered(TestDialogue& d, std::initializer_list<std::string_view> lines) {
  std::string reply = "250-server.test\r\n";
  for (const std::string_view line : lines) reply.append("250-").append(line).append("\r\n");
  d.Says("EHLO client.test");
  const std::string text = d.Reply(reply + "250 LAST\r\n").text;
  std::string offered;
  for (const std::string& line : d.state.offered.Extensions.Lines()) {
    EXPECT_NE(text.find(line), std::string::npos) << line;
    if (line != "LAST") offered += (offered.empty() ? "" : "|") + line;
  }
  return offered;
}

TEST(EhloUnderTls, OffersStartTlsWhereItWorks) {
  const struct {
    bool configured, ready, active;
    const char* removed;
    const char* added;
    const char* offered;
  } rows[] = {
      {true, true, false, "", "", "DSN|STARTTLS"},
      {true, true, false, "STARTTLS", "", "DSN"},
      {true, true, false, "STARTTLS", "X", "DSN|X"},
      {true, true, false, "starttls", "StartTLS", "DSN|StartTLS"},
      {true, true, false, "", "X", "DSN|STARTTLS|X"},
      {true, true, true, "", "", "DSN"},
      {true, true, true, "", "STARTTLS", "DSN"},
      {true, false, false, "", "", "DSN"},
      {true, false, false, "", "STARTTLS", "DSN"},
      {true, false, true, "", "STARTTLS", "DSN"},
      // The certificate went from the settings since TLS began.
      {false, false, true, "", "STARTTLS", "DSN"},
      {false, false, false, "", "", "DSN"},
      // Nothing is new for a file that knows no certificate.
      {false, false, false, "", "STARTTLS", "DSN|STARTTLS"},
  };
  for (const bool local : {false, true}) {
    for (const auto& row : rows) {
      TestDialogue d;
      d.facts.local = local;
      d.facts.tls_configured = row.configured;
      d.facts.tls_ready = row.ready;
      d.facts.tls_active = row.active;
      Configuration& c = d.configuration;
      if (*row.removed)
        (local ? c.RemoveSMTPExtensionsLocal : c.RemoveSMTPExtensionsRemote) = ListOf({row.removed});
      if (*row.added) (local ? c.AddSMTPExtensionsLocal : c.AddSMTPExtensionsRemote) = ListOf({row.added});
      EXPECT_EQ(Offered(d, {"STARTTLS", "DSN"}), row.offered) << row.removed << "/" << row.added;
    }
  }
}

TEST(EhloUnderTls, WithholdsBothFormsOfAuth) {
  TlsDialogue t;
  TestDialogue& d = t.dialogue;
  d.configuration.AddSMTPExtensionsRemote = ListOf({"AUTH CRAM-MD5", "AUTHX"});
  EXPECT_EQ(Offered(d, {"AUTH=LOGIN PLAIN", "auth=", "AUTH LOGIN", "DSN"}), "DSN|STARTTLS|AUTHX");
  d.facts.tls_active = true;
  EXPECT_EQ(Offered(d, {"AUTH=LOGIN PLAIN", "DSN"}), "AUTH=LOGIN PLAIN|DSN|AUTH CRAM-MD5|AUTHX");
}

TEST(EhloUnderTls, TheServersTlsIsNotTheClients) {
  const struct {
    const char* server;
    const char* client;
  } rows[] = {
      {"AUTH PLAIN LOGIN", "AUTH PLAIN LOGIN"},
      {"AUTH PLAIN EXTERNAL LOGIN", "AUTH PLAIN LOGIN"},
      {"auth external Plain", "auth Plain"},
      {"AUTH SCRAM-SHA-1 SCRAM-SHA-1-PLUS PLAIN", "AUTH PLAIN"},
      {"AUTH SCRAM-SHA-1-PLUS SCRAM-SHA-256 SCRAM-SHA-1", "AUTH SCRAM-SHA-256"},
      {"AUTH scram-sha-1-plus SCRAM-SHA-1", ""},
      {"AUTH EXTERNAL", ""},
      {"AUTH", ""},
      {"AUTH=PLAIN EXTERNAL", "AUTH=PLAIN"},
      {"AUTH=EXTERNAL", ""},
      {"AUTHX EXTERNAL", "AUTHX EXTERNAL"},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    d.facts.server_tls_active = true;
    EXPECT_EQ(Offered(d, {row.server}), row.client);
    d.facts.server_tls_active = false;
    EXPECT_EQ(Offered(d, {row.server}), row.server);
  }
  // The operator's word stands.
  TestDialogue d;
  d.facts.server_tls_active = true;
  d.configuration.AddSMTPExtensionsRemote = ListOf({"AUTH EXTERNAL"});
  EXPECT_EQ(Offered(d, {"AUTH PLAIN"}), "AUTH EXTERNAL");
}

TEST(EhloUnderTls, RequireTlsNeedsBothSides) {
  for (const bool configured : {false, true}) {
    for (const std::int32_t server : {0, 2}) {
      for (const bool active : {false, true}) {
        for (const bool server_active : {false, true}) {
          TestDialogue d;
          d.facts.tls_configured = configured;
          d.facts.tls_active = active;
          d.facts.server_tls_active = server_active;
          d.configuration.TLS.Server = server;
          const bool in_use = configured || server != 0;
          EXPECT_EQ(Offered(d, {"REQUIRETLS"}), !in_use || (active && server_active) ? "REQUIRETLS" : "");
        }
      }
    }
  }
}

TEST(EhloUnderTls, AWordOfTheServersBehindWhichATabStandsDoesNotPassEither) {
  TestDialogue d;
  EXPECT_EQ(Offered(d, {"STARTTLS\t", "XCLIENT\tNAME ADDR", "XFORWARD\tNAME", " PIPELINING", "DSN\tx"}),
            "DSN\tx");
  EXPECT_EQ(Offered(d, {"SIZE\t1000", "DSN"}), "DSN|SIZE 1000");
  EXPECT_EQ(d.state.offered.SizeLimit, 1000 * kFixedPointOne);
}

// --- the port of TLS

TEST(TlsPort, ARefusalBeforeTlsIsOnlyLogged) {
  const struct {
    ReplyKind kind;
    const char* reply;
  } rows[] = {
      {ReplyKind::kTooManyConnections, "421 proxy.test is too busy. Try later."},
      {ReplyKind::kIPBlackList, "554 Connection from 192.0.2.7 not allowed."},
      {ReplyKind::kShutdown, "421 4.3.2 proxy.test is shutting down."},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    d.state.phase = Phase::kServerGreeting;
    d.ExpectTls();
    EXPECT_EQ(d.Say(row.kind), "log Refused without TLS: " + std::string(row.reply) + "; closed C");
  }
}

TEST(TlsPort, ARefusalByNameIsSaidUnderTls) {
  TestDialogue d;
  d.state.phase = Phase::kServerGreeting;
  d.ExpectTls();
  EXPECT_EQ(d.state.phase, Phase::kTls);
  EXPECT_EQ(ExpectedBytes(d.state.phase), ClientBytes::kWait);
  d.Secure();
  EXPECT_EQ(d.state.phase, Phase::kServerGreeting);
  EXPECT_EQ(d.Say(ReplyKind::kNoPtr), "<- 454 Unable to verify DNS PTR record for 192.0.2.7.");
  d.Run("C: EHLO a.test\n<- 503 Bad sequence of commands.");
}

TEST(TlsPort, TheDialogueThatFollowsIsUnderTls) {
  TlsDialogue t;
  TestDialogue& d = t.dialogue;
  d.configuration.TLS.Require = 3;
  d.state.phase = Phase::kServerGreeting;
  d.ExpectTls();
  d.Secure();
  d.Run("S: 220 server.test\n<- 220 server.test");
  t.Greet(false, true);
  d.Run(R"(
    C: STARTTLS
    <- 502 5.5.1 Command not implemented.
    C: MAIL FROM:<s@sender.test>
    -> MAIL FROM:<s@sender.test>)");
}

}  // namespace
}  // namespace trabex
