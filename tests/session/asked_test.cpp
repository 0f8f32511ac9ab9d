// What the client asks for and what it gets are two things: which values of a session a refused command
// leaves behind.
#include <gtest/gtest.h>

#include <string>

#include "session/dialogues.h"
#include "session/session_fixture.h"

namespace trabex {
namespace {

void RefuseEvil(SessionFixture& fixture) {
  fixture.Settings.ValidateHELO = 4;
  fixture.Settings.HELOBlackList.Add("evil.test", {.patterns = {"evil.test"}});
}

constexpr const char* kHeaderOfHelo = R"(
    -> Received: from evil.test (Unknown [127.0.0.1]) by proxy.test
    ->       with SMTP; Sun, 15 Nov 2026 16:54:24 -0000
)";

// The trace header names the domain and the verb that the client said last, whether or not it was let through
// with them: the name is taken over at the command. The extensions are those of the greeting that the server
// accepted: they are taken over at the reply.
TEST(Asked, ARefusedHeloIsNamedInTheHeaderAndCostsNoExtension) {
  const std::string after_helo = Greeted() + R"(
    C: HELO evil.test
    <- 550 Disallowed domain name: evil.test.
)";
  PlayEveryWay(RefuseEvil, after_helo + MailAndRcpt() + R"(
    C: DATA
    -> DATA
    S: 354 go on
    wait 200)" + kHeaderOfHelo +
                               R"(
    <- 354 go on)");
  // A server that took EHLO takes chunks, and limits the size.
  PlayEveryWay(RefuseEvil, after_helo + R"(
    C: MAIL FROM:<a@b.test> SIZE=10000001
    <- 552 5.3.4 *
)" + MailAndRcpt() + R"(
    C+ BDAT 3 LAST\r\nabc
    -> BDAT 115 LAST)" + kHeaderOfHelo +
                               R"(
    S+ 250 ok\r\n
    <- 250 ok)");
}

// The same when it is the server that refuses, and the other way round.
TEST(Asked, AGreetingThatTheServerRefusesIsNamedInTheHeader) {
  PlayEveryWay({}, Greeted() + R"(
    C: HELO evil.test
    -> HELO evil.test
    S: 550 no
    <- 550 no
)" + MailAndRcpt() + R"(
    C: DATA
    -> DATA
    S: 354 go on
    wait 200)" + kHeaderOfHelo +
                       R"(
    <- 354 go on)");
  PlayEveryWay({}, R"(
    S: 220 server ready
    <- 220 server ready
    C: HELO client.test
    -> HELO client.test
    S: 250 ok
    <- 250 ok
    C: EHLO other.test
    -> EHLO other.test
    S: 502 what
    <- 502 what
)" + MailAndRcpt() +
                       R"(
    C: DATA
    -> DATA
    S: 354 go on
    wait 200
    -> Received: from other.test (Unknown [127.0.0.1]) by proxy.test
    ->       with ESMTP; Sun, 15 Nov 2026 16:54:24 -0000
    <- 354 go on)");
}

// A transaction is the server's: only its own 250 to EHLO or HELO begins anew.
TEST(Asked, ARefusedGreetingLeavesTheTransactionOpen) {
  PlayEveryWay(RefuseEvil, InTransaction() + R"(
    C: EHLO evil.test
    <- 550 Disallowed domain name: evil.test.
)" + Rcpt("v@local.test") + R"(
    C: EHLO other.test
    -> EHLO other.test
    S: 501 no
    <- 501 no
    C: RCPT TO:<w@local.test>
    -> RCPT TO:<w@local.test>)");
}

// Replies name the sender and the size of the last MAIL, also of one that was refused: they are taken over at
// the command. A transaction opens at the server's reply alone.
TEST(Asked, ARefusedMailIsNamedInReplies) {
  const auto configure = [](SessionFixture& fixture) {
    fixture.Settings.SendersBlackList.Add("evil@*", {.patterns = {"evil@*"}});
    cReplaces replaces;
    replaces.SetName("VRFY.252");
    replaces.Add("", "252 {%from%} {%size%}", true);
    fixture.Settings.ResponseChanges.Add(replaces);
  };
  const auto named = [](const std::string& values) {
    return "\nC: VRFY x\n-> VRFY x\nS: 252 perhaps\n<- 252 " + values + "\n";
  };
  const std::string no_transaction = "\nC: RCPT TO:<u@local.test>\n<- 503 5.5.1 Bad sequence of commands.\n";
  PlayEveryWay(configure, Greeted() + named(" 0") + R"(
    C: MAIL FROM:<evil@b.test> SIZE=100
    <- 550 5.7.1 Mail from evil@b.test not allowed.
)" + named("evil@b.test 0") + no_transaction +
                              R"(
    C: MAIL FROM:<good@b.test> SIZE=10000001
    <- 552 5.3.4 *
)" + named("good@b.test 10000001") +
                              no_transaction + R"(
    C: MAIL FROM:<refused@b.test> SIZE=200
    -> MAIL FROM:<refused@b.test> SIZE=200
    S: 550 no
    <- 550 no
)" + named("refused@b.test 200") +
                              no_transaction +
                              R"(
    C: MAIL FROM:<not an address>
    <- 501 5.5.4 Invalid syntax of address in MAIL command.
)" + named("refused@b.test 0") +
                              no_transaction);
}

// RCPT counts when it is asked for, so that a client cannot try addresses without end.
TEST(Asked, RefusedRecipientsCount) {
  PlayEveryWay([](SessionFixture& fixture) { fixture.Settings.MaxRecipientsLocal = 3; }, InTransaction() + R"(
    C: RCPT TO:<v@local.test>
    -> RCPT TO:<v@local.test>
    S: 550 no
    <- 550 no
    C: RCPT TO:<not an address>
    <- 501 5.5.4 Invalid syntax of address in RCPT command.
    C: RCPT TO:<w@local.test>
    -> RCPT TO:<w@local.test>
    S: 550 no
    <- 550 no
    C: RCPT TO:<x@local.test>
    <- 452 4.5.3 Too many recipients.)");
}

// A chunk is under way when it is announced, whatever the server says to it. Behind one that it refused only RSET and
// QUIT go on: Exim takes nothing else then, and would find a RSET in the octets of another chunk.
TEST(Asked, AChunkThatTheServerRefusesIsUnderWay) {
  const std::string refused = InTransaction() + R"(
    C+ BDAT 3\r\nabc
    -> BDAT *
    -> Received: *
    ->       with ESMTP; *
    S: 552 no
    <- 552 no
    C: NOOP
    <- 503 5.5.1 Bad sequence of commands.
)";
  PlayEveryWay({}, refused + R"(
    C: RSET
    -> abcRSET
    S: 250 ok
    <- 250 ok
    C: NOOP
    -> NOOP)");
  PlayEveryWay({}, refused + R"(
    C+ BDAT 6 LAST\r\nRSET\r\n
    <- 503 5.5.1 Bad sequence of commands.
    C: MAIL FROM:<a@b.test>
    <- 503 5.5.1 Bad sequence of commands.
    C: RSET
    -> abcRSET
    S: 250 ok
    <- 250 ok
    C: NOOP
    -> NOOP)");
}

// A greeting is relayed whatever it says. Whether the server takes commands after one that refuses is its
// own affair; until it has accepted a greeting of the client, the proxy lets no mail through.
TEST(Asked, CommandsAfterAGreetingThatRefusesGoToTheServer) {
  const std::string refused = R"(
    S: 554-server.test
    S: 554 no service
    <- 554-server.test
    <- 554 no service
    C: EHLO client.test
    -> EHLO client.test
)";
  PlayEveryWay({}, refused + R"(
    S: 503 go away
    <- 503 go away
    C: MAIL FROM:<a@b.test>
    <- 503 Bad sequence of commands.
    C: NOOP
    -> NOOP
    S: 503 go away
    <- 503 go away
    C: QUIT
    -> QUIT
    S: 221 bye
    <- 221 bye
    S closes
    closed C)");
  // One that accepts EHLO all the same is believed.
  PlayEveryWay({}, refused + "S: 250 server\n<- 250 server\n" + MailAndRcpt());
  // So is one that was sent ahead.
  PlayEveryWay({}, R"(
    C+ EHLO client.test\r\nQUIT\r\n
    S: 554 no service
    <- 554 no service
    -> EHLO client.test
    S: 503 go away
    <- 503 go away
    -> QUIT
    S: 221 bye
    <- 221 bye)");
}

}  // namespace
}  // namespace trabex
