// The filters in whole sessions: what is refused, rewritten, and followed.
#include <gtest/gtest.h>

#include "session/dialogues.h"
#include "session/session_fixture.h"

namespace trabex {
namespace {

void AddPattern(ExpressionList& list, const char* pattern) {
  list.Add(pattern, {.patterns = {pattern}});
}

// The client counts as remote.
void Remote(SessionFixture& fixture) {
  fixture.Settings.LocalIPs = IPRangeList();
}

void AddChange(SessionFixture& fixture, const char* name, const char* search, const char* text) {
  cReplaces replaces;
  replaces.Add(search, text, false);
  replaces.SetName(name);
  fixture.Settings.ResponseChanges.Add(replaces);
}

TEST(Ehlo, ReplyIsRewritten) {
  PlayEveryWay(
      [](SessionFixture& fixture) {
        fixture.Settings.MaxSize = 1000 * kFixedPointOne;
        AddPattern(fixture.Settings.RemoveSMTPExtensionsLocal, "VRFY");
        fixture.Settings.AddSMTPExtensionsLocal.Add("XTRA", {.patterns = {"XTRA 1 2"}});
      },
      R"(
    S: 220 server ready
    <- 220 server ready
    C: EHLO client.test
    -> EHLO client.test
    S: 250-server greets
    S: 250-PIPELINING
    S: 250-VRFY
    S: 250-starttls
    <- nothing
    S: 250-SIZE 5000
    S: 250-XCLIENT NAME ADDR
    S: 250 8BITMIME
    <- 250-server greets
    <- 250-8BITMIME
    <- 250-SIZE 1000
    <- 250 XTRA 1 2
    C: MAIL FROM:<a@b.test> SIZE=1001
    <- 552 5.3.4 Message size (1001 bytes) exceeds fixed maximium message size (1000 bytes).
    C: MAIL FROM:<a@b.test> size=1000 BODY=8BITMIME
    -> MAIL FROM:<a@b.test> size=1000 BODY=8BITMIME)");
}

// What the client declares is compared with the limit, and what the server offers. The content is the
// server's to measure.
TEST(MaxSize, IsComparedWithTheDeclaredSizeAlone) {
  const std::string content = "C: " + std::string(300, 'x') + "\n-> " + std::string(300, 'x') + "\n";
  PlayBothWays(
      [](SessionFixture& fixture) {
        fixture.Settings.MaxSize = 200 * kFixedPointOne;
        fixture.Settings.AddReceived = false;
      },
      R"(
    S: 220 server ready
    <- 220 server ready
    C: EHLO client.test
    -> EHLO client.test
    S: 250-server
    S: 250 SIZE 1000
    <- 250-server
    <- 250 SIZE 200
    C: MAIL FROM:<a@b.test> SIZE=201
    <- 552 5.3.4 Message size (201 bytes) exceeds fixed maximium message size (200 bytes).
    C: MAIL FROM:<a@b.test> SIZE=200
    -> MAIL FROM:<a@b.test> SIZE=200
    S: 250 ok
    <- 250 ok
)" + Rcpt() +
          R"(
    C: DATA
    -> DATA
    S: 354 go on
    <- 354 go on
)" + content +
          R"(
    C: .
    -> .
    S: 250 queued
    <- 250 queued
    C: MAIL FROM:<a@b.test>
    -> MAIL FROM:<a@b.test>)");
}

TEST(Ehlo, ChunkingIsNotOfferedForAServerThatDoesNotKnowIt) {
  PlayEveryWay(
      [](SessionFixture& fixture) { AddPattern(fixture.Settings.AddSMTPExtensionsLocal, "CHUNKING"); },
      Greeting() + Ehlo({"8BITMIME"}) + Mail() + R"(
    C+ BDAT 6 LAST\r\nRSET\r\n
    <- 503 5.5.1 Bad sequence of commands.
    -> nothing)");
}

TEST(Ehlo, SecondOneStartsAnew) {
  PlayEveryWay({}, InTransaction() + R"(
    C: EHLO again.test
    -> EHLO again.test
    S: 250 server
    <- 250 server
    C: RCPT TO:<u@local.test>
    <- 503 5.5.1 Bad sequence of commands.
)" + Mail() + R"(
    C: BDAT 3 LAST
    C+ abc
    <- 503 5.5.1 Bad sequence of commands.
    C: NOOP
    -> NOOP)");
}

// A client takes the reply that nobody asked for as that to its next command, which may be an EHLO.
TEST(Ehlo, AReplyToItThatNobodyAskedForIsRewrittenToo) {
  const auto settings = [](SessionFixture& fixture) {
    fixture.Settings.MaxSize = 1000 * kFixedPointOne;
    AddPattern(fixture.Settings.RemoveSMTPExtensionsLocal, "CHUNKING");
  };
  const std::string unasked = R"(
    S+ 250-server again\r\n250-STARTTLS\r\n250-XCLIENT NAME ADDR\r\n250-PIPELINING\r\n250-CHUNKING\r\n250 SIZE 5000\r\n
    <- 250-server again
    <- 250 SIZE 1000
)";
  PlayEveryWay(settings, Greeting() + unasked + Ehlo({"8BITMIME", "SIZE 1000"}));
  // In one packet with the one that was asked for.
  PlayEveryWay(settings, Greeting() + R"(
    C: EHLO client.test
    -> EHLO client.test
    S+ 250-server\r\n250 SIZE 700\r\n250-server again\r\n250-XCLIENT NAME\r\n250 SIZE 5000\r\n
    <- 250-server
    <- 250 SIZE 700
    <- 250-server again
    <- 250 SIZE 1000
    # It changes nothing.
    C: MAIL FROM:<a@b.test> SIZE=701
    <- 552 5.3.4 Message size (701 bytes) exceeds fixed maximium message size (700 bytes).
)");
  PlayEveryWay(settings, Greeting() + Ehlo({"SIZE 1000"}) + MailAndRcpt() + unasked + "C: DATA\n-> DATA");
}

TEST(Ehlo, AReplyOfOneLineThatNobodyAskedForStaysAsItIs) {
  PlayEveryWay(
      [](SessionFixture& fixture) { AddPattern(fixture.Settings.AddSMTPExtensionsLocal, "XTRA"); },
      Greeting() + "S: 250 hello\n<- 250 hello\nS: 251-two\nS: 251 XCLIENT\n<- 251-two\n<- 251 XCLIENT");
}

TEST(Helo, HeaderSaysSmtp) {
  PlayEveryWay([](SessionFixture& fixture) { fixture.Names.SetName(kIPv4Loopback, "client.example"); }, R"(
    S: 220 server ready
    <- 220 server ready
    C: helo  client.test
    -> helo client.test
    S: 250 server
    <- 250 server
)" + MailAndRcpt("") + R"(
    C: DATA
    -> DATA
    S: 354 go on
    wait 200
    -> Received: from client.test (client.example [127.0.0.1]) by proxy.test
    ->       with SMTP; Sun, 15 Nov 2026 16:54:24 -0000
    <- 354 go on)");
}

TEST(Helo, IsCheckedInDns) {
  const auto configure = [](SessionFixture& fixture) {
    fixture.Settings.ValidateHELO = 1;
    fixture.Names.SetAddresses("right.test", {IP("127.0.0.2"), kIPv4Loopback});
    fixture.Names.SetAddresses("wrong.test", {IP("127.0.0.2")});
    fixture.Names.SetAddresses("127.0.0.1", {kIPv4Loopback});
  };
  PlayEveryWay(configure, R"(
    S: 220 server ready
    <- 220 server ready
    C: EHLO nowhere.test
    <- 450 Unable to verify domain name nowhere.test in DNS.
    C: EHLO wrong.test
    <- 550 Domain wrong.test doesn't correspond to IP address 127.0.0.1.
    C: EHLO
    <- 501 Domain name not specified.
    C+ EHLO right.test\r\nNOOP\r\n
    -> EHLO right.test
    S: 250 server
    <- 250 server
    -> NOOP
    S: 250 ok
    <- 250 ok
    C: HELO [127.0.0.1]
    -> HELO [127.0.0.1])");
}

TEST(Helo, WaitsForItsNameAndTakesNoFurtherLine) {
  SessionFixture fixture;
  fixture.Settings.ValidateHELO = 1;
  fixture.Names.SetAddresses("right.test", {kIPv4Loopback});
  EXPECT_EQ(fixture.Play("S: 220 server ready\n<- 220 server ready"), "");
  fixture.Names.HoldAnswers();
  EXPECT_EQ(fixture.Play(R"(
    C+ EHLO right.test\r\nNOOP\r\n
    -> nothing
    <- nothing
    answer
    -> EHLO right.test
    S: 250 server
    <- 250 server
    -> NOOP)"),
            "");
}

TEST(Helo, OwnHostNameNeedsNoLookUp) {
  const auto configure = [](SessionFixture& fixture) {
    fixture.Settings.ValidateHELO = 1;
    fixture.Names.SetName(kIPv4Loopback, "mail.example.test");
  };
  PlayEveryWay(configure, R"(
    S: 220 server ready
    <- 220 server ready
    C: EHLO EXAMPLE.test
    -> EHLO EXAMPLE.test)");
}

TEST(Rcpt, RelayingIsRefusedToRemoteClients) {
  PlayEveryWay(Remote, Greeted() + Mail() + R"(
    C: RCPT TO:<x@other.test>
    <- 550 5.7.1 Relaying to other.test not allowed.
    C: RCPT TO:<x%other.test@local.test>
    <- 550 5.7.1 Relaying to local.test not allowed.
    C: RCPT TO:<"x@other.test"@local.test>
    <- 550 5.7.1 Relaying to local.test not allowed.
    C: RCPT TO:<other.test!x@local.test>
    <- 550 5.7.1 Relaying to local.test not allowed.
    C: RCPT TO:<x@other.test@local.test>
    <- 550 5.7.1 Relaying to local.test not allowed.
    C: RCPT TO:<@other.test:u@local.test.> NOTIFY=NEVER
    -> RCPT TO:<u@local.test> NOTIFY=NEVER)");
}

TEST(Rcpt, AddressesAreReplaced) {
  PlayEveryWay(
      [](SessionFixture& fixture) {
        fixture.Settings.SenderReplacementsLocal = {{"a@*", "z@out.test"}};
        fixture.Settings.RecipientReplacementsLocal = {{"nobody@*", "n@x"},
                                                       {"\"u@local.test\"", "v@local.test"}};
      },
      Greeted() + R"(
    C: MAIL FROM:<a@b.test> BODY=8BITMIME
    -> MAIL FROM:<z@out.test> BODY=8BITMIME
    S: 250 ok
    <- 250 ok
    C: RCPT TO:<u@local.test>
    -> RCPT TO:<v@local.test>)");
}

TEST(Greylisting, RefusesAtRcpt) {
  DelayAll greylisting;
  PlayEveryWay(
      [&](SessionFixture& fixture) {
        Remote(fixture);
        fixture.Greylisting = &greylisting;
        fixture.Settings.GreyListing.Enabled = true;
      },
      Greeted() + Mail() + R"(
    C: RCPT TO:<u@local.test>
    <- 451 4.7.1 Greylisted. Delivery delayed.
    C: QUIT
    -> QUIT)");
}

TEST(Greylisting, CallbackSenderIsRefusedAtData) {
  DelayAll greylisting;
  const auto configure = [&](SessionFixture& fixture) {
    Remote(fixture);
    fixture.Greylisting = &greylisting;
    fixture.Settings.GreyListing.Enabled = true;
  };
  const std::string opening = Greeted() + MailAndRcpt("") + "C: DATA\n";
  PlayEveryWay(configure, opening + R"(
    <- 451 4.7.1 Greylisted. Delivery delayed.
    C: RSET
    -> RSET
    S: 250 ok
    <- 250 ok)");
  PlayEveryWay(
      [&](SessionFixture& fixture) {
        configure(fixture);
        fixture.Settings.GreyListing.CallbackSenderAction = 3;
      },
      opening + R"(
    closed both
    log R: {*] Connection broken due to Greylisting)");
}

TEST(Responses, OwnAndServersAreChanged) {
  PlayEveryWay(
      [](SessionFixture& fixture) {
        AddChange(fixture, ".220", "server", "{%localhostname%}");
        AddChange(fixture, "BadSeq", "Bad", "Very bad");
        AddChange(fixture, "DATA.BadSeq.NoHelo", "", "500 Say hello first{%crlf%}");
        AddChange(fixture, "NOOP.250", "ok", "fine, {%remotehostip%}");
      },
      R"(
    S: 220 server ready
    <- 220 proxy.test ready
    C: MAIL FROM:<a@b>
    <- 503 Very bad sequence of commands.
    C: DATA
    <- 500 Say hello first
    <-
    C: NOOP
    -> NOOP
    S: 250 ok
    <- 250 fine, 127.0.0.1)");
}

// Macros are the administrator's: what the client wrote is text, in the proxy's own replies and in the
// server's.
TEST(Responses, MacrosOfAPeerStayText) {
  const auto configure = [](SessionFixture& fixture) {
    Remote(fixture);
    fixture.Settings.ValidateHELO = 8;
    AddPattern(fixture.Settings.HELOBlackList, "evil*");
    AddChange(fixture, "RCPT.Relaying", "", "550 no: {%original%}");
    AddChange(fixture, "HELO.BlackList", "name", "host {%helodomain%},");
    AddChange(fixture, "NOOP.550", "never", "not");
    AddChange(fixture, "VRFY.550", "", "550-{%helodomain%} asks:{%crlf%}550 {%original%}");
  };
  PlayEveryWay(configure, InTransaction() + R"(
    C: RCPT TO:<x@{%crlf%}250-2.1.5_ok{%crlf%}250.y>
    <- 550 no: 550 5.7.1 Relaying to {%crlf%}250-2.1.5_ok{%crlf%}250.y not allowed.
    C: EHLO evil{%crlf%}250{%original%}
    <- 550 Disallowed domain host evil{%crlf%}250{%original%},: evil{%crlf%}250{%original%}.
    C: NOOP {%crlf%}250 ok
    -> NOOP {%crlf%}250 ok
    S: 550 {%crlf%}250 ok: no such thing
    <- 550 {%crlf%}250 ok: no such thing
    C: VRFY {%crlf%}
    -> VRFY {%crlf%}
    S: 550-{%crlf%}
    S: 550 who?
    <- 550-evil{%crlf%}250{%original%} asks:
    <- 550 550 {%crlf%} who?
    <- nothing)");
}

TEST(Auth, DataIsNoCommandAndStaysSecret) {
  PlayEveryWay({}, Greeted() + R"(
    C: AUTH PLAIN c2VjcmV0
    -> AUTH PLAIN c2VjcmV0
    S: 334 go on
    <- 334 go on
    C: DATA
    -> DATA
    S: 235 welcome
    <- 235 welcome
    C: DATA
    <- 503 5.5.1 Bad sequence of commands.
    log R: {*] < AUTH PLAIN ***¶
    log S: {*] > AUTH PLAIN ***¶
    log S: {*] > ***¶
    log R: {*] < ***¶)");
}

TEST(Form, OddLinesAreRefusedOrPutRight) {
  PlayEveryWay({}, Greeted() + R"(
    C+ NOOP\rRSET\r\n
    <- 500 5.5.2 Invalid character in command line.
    C+ NOOP\nRSET\r\n
    <- 500 5.5.2 Invalid character in command line.
    C+ NOOP\0\r\n
    <- 500 5.5.2 Invalid character in command line.
    C+ \t mail \t FROM:<a@b.test>\r\n
    -> MAIL FROM:<a@b.test>
    log R: {*] < NOOP\\x0DRSET¶)");
}

TEST(Bdat, RefusedOctetsAreNoCommands) {
  PlayEveryWay({}, Greeted() + R"(
    C+ BDAT 14\r\nMAIL FROM:<a>\nRSET\r\n
    <- 503 5.5.1 Bad sequence of commands.
    -> RSET)");
}

TEST(Bdat, WithoutACountTheSessionEnds) {
  PlayEveryWay({}, InTransaction() + R"(
    C+ BDAT 2000000001\r\nRSET\r\n
    <- 503 5.5.1 Bad sequence of commands.
    closed both)");
}

TEST(Bdat, TwoMessagesInChunks) {
  const std::string message = MailAndRcpt() + R"(
    C+ BDAT 6\r\none\r\n.
    -> BDAT 121
    -> Received: from client.test (Unknown [127.0.0.1]) by proxy.test
    ->       with ESMTP; Sun, 15 Nov 2026 16:54:24 -0000
    -> one
    C: NOOP
    S: 250 got it
    <- 250 got it
    <- 503 5.5.1 Bad sequence of commands.
    C+ BDAT 3 LAST\r\n\r\nx
    -> .BDAT 3 LAST
    ->
    S+ 250 queued\r\n
    <- 250 queued
    C+ NOOP\r\n
    -> xNOOP
    S: 250 ok
    <- 250 ok
)";
  PlayEveryWay({}, Greeted() + message + message);
}

// A server that looks at the content says no only now.
TEST(Bdat, ARefusedMessageIsOver) {
  const std::string refused = R"(
    C+ BDAT 3 LAST\r\nabcMAIL FROM:<next@b.test>\r\n
    -> BDAT 118 LAST
    -> Received: from client.test (Unknown [127.0.0.1]) by proxy.test
    ->       with ESMTP; Sun, 15 Nov 2026 16:54:24 -0000
    S+ 550 5.7.1 denied\r\n
    <- 550 5.7.1 denied
    -> abcMAIL FROM:<next@b.test>
    S: 250 ok
    <- 250 ok
    C: RCPT TO:<v@local.test>
    -> RCPT TO:<v@local.test>
)";
  PlayEveryWay({}, InTransaction() + refused);
}

}  // namespace
}  // namespace trabex
