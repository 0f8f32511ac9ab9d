// What both sides may say and do in each phase of a session, the unexpected included.
#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <utility>

#include "session/dialogues.h"
#include "session/session_fixture.h"

namespace trabex {
namespace {

void WithoutHeader(SessionFixture& fixture) {
  fixture.Settings.AddReceived = false;
}

constexpr const char* kConnected = R"(
    S: 220 server ready
    <- 220 server ready
)";

// --- greeting

TEST(Greeting, OneOfSeveralLinesAndFurtherRepliesReachTheClientInOrder) {
  PlayEveryWay({}, R"(
    C: NOOP
    S+ 220-a\r\n220 b\r\n421 later\r\n
    <- 220-a
    <- 220 b
    <- 421 later
    -> NOOP)");
}

TEST(Greeting, AnyReplyEndsTheWaitForIt) {
  for (const char* greeting :
       {"421 later", "500 what", "250 ok", "354 go on", "334 go on", "221 bye", "no code"}) {
    SCOPED_TRACE(greeting);
    // No command has asked for content, data or the end yet.
    PlayEveryWay({}, "C: NOOP\nS: " + std::string(greeting) + "\n<- " + greeting + R"(
      -> NOOP
      S: 250 ok
      <- 250 ok
      C: NOOP
      -> NOOP)");
  }
}

// --- commands

TEST(Command, AnUnsolicitedRefusalChangesNothing) {
  for (const char* reply : {"421 time is up", "221 bye", "354 go on", "334 go on", "250 ok", "554 no"}) {
    SCOPED_TRACE(reply);
    PlayEveryWay({}, InTransaction() + "S: " + reply + "\n<- " + reply + R"(
      C: RCPT TO:<v@local.test>
      -> RCPT TO:<v@local.test>)");
  }
}

TEST(Command, AFarewellInsteadOfAReplyLeavesTheSessionToTheServer) {
  PlayEveryWay({}, Greeted() + R"(
    C+ NOOP\r\nRSET\r\n
    -> NOOP
    S: 421 time is up
    <- 421 time is up
    -> RSET
    S: 250 still here
    <- 250 still here)");
}

TEST(Command, AReplyThatIsLongerThanAnyIsUnderstoodByItsEnd) {
  SessionFixture fixture;
  std::string reply;
  std::string heard;
  for (int line = 0; line < 200; ++line) {
    reply += "S: 250-{500*x}\n";
    heard += "<- 250-{500*x}\n";
  }
  // How much of it the client has before its end depends on the pieces in which it comes.
  EXPECT_EQ(fixture.Play(Greeted() + "C: MAIL FROM:<a@b.test>\n-> MAIL FROM:<a@b.test>\n" + reply + R"(
    C: RCPT TO:<u@local.test>
    -> nothing
    S: 250 ok
)" + heard + R"(
    <- 250 ok
    -> RCPT TO:<u@local.test>)"),
            "");
}

TEST(Command, ALineWithoutEndThatIsLongerThanAnyReplyEndsTheSession) {
  SessionFixture fixture;
  EXPECT_EQ(fixture.Play(Greeted() + R"(
    C: NOOP
    -> NOOP
    S+ 250 {100000*x}
    <- 421 proxy.test is temporarily unavailable.
    closed both
    log S: {*] Reply too long. Closing connection.)"),
            "");
}

// --- the name that HELO or EHLO says

TEST(NameCheck, WhatTheServerSaysMeanwhileIsRelayed) {
  SessionFixture fixture;
  fixture.Settings.ValidateHELO = 1;
  ASSERT_EQ(fixture.Play(kConnected), "");
  fixture.Names.HoldAnswers();
  EXPECT_EQ(fixture.Play(R"(
    C+ EHLO right.test\r\nNOOP\r\n
    -> nothing
    S: 421-still
    S: 421 there
    <- 421-still
    <- 421 there
    -> nothing
    answer 127.0.0.1
    -> EHLO right.test
    -> nothing
    S: 250 ok
    <- 250 ok
    -> NOOP)"),
            "");
}

TEST(NameCheck, EndsWithTheSession) {
  for (const char* end : {"C closes\nclosed S", "C resets\nclosed S", "S closes\nclosed C",
                          "S: 421 time is up\nS closes\n<- 421 time is up\nclosed C",
                          "shutdown\n<- 421 4.3.2 *\nclosed both"}) {
    SCOPED_TRACE(end);
    SessionFixture fixture;
    fixture.Settings.ValidateHELO = 1;
    ASSERT_EQ(fixture.Play(kConnected), "");
    fixture.Names.HoldAnswers();
    EXPECT_EQ(fixture.Play(std::string("C: EHLO right.test\n-> nothing\n") + end), "");
    EXPECT_EQ(fixture.Names.Waiting(), 0U);
    EXPECT_EQ(fixture.Sessions().Count(), 0U);
  }
}

// --- authentication

TEST(AuthPhase, DataSentAheadIsTakenWhenItIsAskedFor) {
  PlayEveryWay({}, Greeted() + R"(
    C+ AUTH LOGIN\r\nDATA\r\nQUIT\r\nNOOP\r\n
    -> AUTH LOGIN
    -> nothing
    S: 334 VXNlcg==
    <- 334 VXNlcg==
    -> DATA
    -> nothing
    S: 334 UGFzcw==
    <- 334 UGFzcw==
    -> QUIT
    -> nothing
    S: 235 welcome
    <- 235 welcome
    -> NOOP)");
}

TEST(AuthPhase, AServerThatSpeaksAgainReadsCommands) {
  PlayEveryWay({}, Greeted() + R"(
    C: AUTH LOGIN
    -> AUTH LOGIN
    S+ 334 VXNlcg==\r\n421 too slow\r\n
    <- 334 VXNlcg==
    <- 421 too slow
    C: DATA
    <- 503 5.5.1 Bad sequence of commands.)");
}

TEST(AuthPhase, DataWithAControlCharacterEndsTheSession) {
  PlayEveryWay({}, Greeted() + R"(
    C: AUTH LOGIN
    -> AUTH LOGIN
    S: 334 VXNlcg==
    <- 334 VXNlcg==
    C+ c2Vj\ncmV0\r\nNOOP\r\n
    <- 500 5.5.2 Invalid character in command line.
    closed both)");
}

// --- content

TEST(ContentPhase, AReplyAfter354InTheSameSegmentEndsTheSession) {
  PlayEveryWay(WithoutHeader, InTransaction() + R"(
    C: DATA
    -> DATA
    S+ 354 go on\r\n421 too late\r\n
    <- 354 go on
    <- 421 too late
    closed both)");
}

TEST(ContentPhase, AReplyThatRefusesDataLeavesTheTransactionOpen) {
  PlayEveryWay({}, InTransaction() + R"(
    C+ DATA\r\nRCPT TO:<v@local.test>\r\n
    -> DATA
    S: 452 not now
    <- 452 not now
    -> RCPT TO:<v@local.test>)");
}

TEST(ContentPhase, AnyReplyToTheContentIsItsAnswer) {
  for (const char* reply : {"250 queued", "554 no", "354 go on", "334 go on", "221 bye", "what"}) {
    SCOPED_TRACE(reply);
    PlayEveryWay(WithoutHeader, InTransaction() + R"(
      C: DATA
      -> DATA
      S: 354 go on
      <- 354 go on
      C+ text\r\n.\r\nNOOP\r\n
      -> text
      -> .
      -> nothing
      S: )" + reply + "\n<- " + reply +
                                    R"(
      -> NOOP
      S: 250 ok
      <- 250 ok
      C: RCPT TO:<u@local.test>
      <- 503 5.5.1 Bad sequence of commands.)");
  }
}

TEST(ChunkPhase, AnEarlyReplyIsRelayedAndTheOctetsGoOn) {
  PlayEveryWay(WithoutHeader, InTransaction() + R"(
    C+ BDAT 11 LAST\r\nQUIT\r\n
    -> BDAT 11 LAST
    -> QUIT
    S: 552 too much
    <- 552 too much
    C+ .\r\nab
    -> .
    *> ab
    C: NOOP
    -> NOOP
    S: 250 ok
    <- 250 ok
    C: RCPT TO:<u@local.test>
    <- 503 5.5.1 Bad sequence of commands.)");
}

TEST(ChunkPhase, EveryReplyMeanwhileIsRelayed) {
  PlayEveryWay(WithoutHeader, InTransaction() + R"(
    C+ BDAT 6\r\na\r\n
    -> BDAT 6
    -> a
    S+ 250 one\r\n421 two\r\n
    <- 250 one
    <- 421 two
    C+ b\r\nBDAT 0 LAST\r\n
    -> b
    -> BDAT 0 LAST
    S: 250 queued
    <- 250 queued
    C: MAIL FROM:<a@b.test>
    -> MAIL FROM:<a@b.test>)");
}

std::string InTransactionWithXexch50() {
  return std::string(kConnected) + Ehlo({"XEXCH50"}) + MailAndRcpt();
}

TEST(ChunkPhase, OctetsOfXexch50FollowIts354AndHaveAReply) {
  PlayEveryWay({}, InTransactionWithXexch50() + R"(
    C+ XEXCH50 6 2\r\n
    -> XEXCH50 6 2
    C+ a\r\n.\r\nNOOP\r\n
    -> nothing
    S: 354 go on
    <- 354 go on
    -> a
    -> .
    -> nothing
    S: 250 got it
    <- 250 got it
    -> NOOP)");
}

TEST(ChunkPhase, ARefusedXexch50HasNoOctets) {
  PlayEveryWay({}, InTransactionWithXexch50() + R"(
    C+ XEXCH50 6 2\r\nRSET\r\n
    -> XEXCH50 6 2
    -> nothing
    S: 504 no
    <- 504 no
    -> RSET)");
}

// What the server does not take at once, the client's end does not cost it.
TEST(ContentPhase, ContentSentBeforeTheClientClosedReachesASlowServer) {
  SessionFixture fixture;
  WithoutHeader(fixture);
  ASSERT_EQ(fixture.Play(InTransaction() + "C: DATA\n-> DATA\nS: 354 go on\n<- 354 go on"), "");
  TestPeer server = std::move(fixture.ServerPeer());  // not read by the fixture now
  server.HoldLittle();
  const std::string line(998, 'x');
  std::size_t sent = 0;
  const std::string text = line + "\r\n";
  while (sent < (std::size_t{8} << 20)) {
    const std::size_t more = fixture.ClientPeer().Send(std::string_view(text).substr(sent % text.size()));
    if (more == 0) break;
    sent += more;
    fixture.Settle();
  }
  ASSERT_GT(sent, std::size_t{1} << 16);
  fixture.ClientPeer().Close();
  EXPECT_TRUE(fixture.Until([&] {
    server.Poll();
    return server.AtEnd();
  }));
  EXPECT_FALSE(server.WasReset());
  EXPECT_EQ(server.Received().size(), sent);
  EXPECT_EQ(fixture.Sessions().Count(), 0U);
}

// --- the pause before the end

TEST(Pause, NothingOfTheClientIsTakenAndTheServerIsStillRelayed) {
  const auto configure = [](SessionFixture& fixture) { fixture.Settings.MaxBadSeq = 0; };
  const std::string paused = std::string(kConnected) + R"(
    C: DATA
    <- 503 Bad sequence of commands.
    C: NOOP
)";
  PlayEveryWay(configure, paused + R"(
    wait 499
    <- nothing
    -> nothing
    wait 1
    closed both)");
  PlayEveryWay(configure, paused + R"(
    S: 421 time is up
    <- 421 time is up
    -> nothing
    wait 499
    <- nothing
    wait 1
    closed both)");
  // A client that goes is not waited for. (Under TLS what it says last lies unread until the pause is over.)
  PlayEveryWay(configure, paused + "S closes\nclosed C");
  PlayBothWays(configure,
               std::string(kConnected) + "C: DATA\n<- 503 Bad sequence of commands.\nC closes\nclosed S");
  PlayEveryWay(configure,
               std::string(kConnected) + "C: DATA\n<- 503 Bad sequence of commands.\nC resets\nclosed S");
  PlayEveryWay(configure, paused + "shutdown\n<- 421 4.3.2 *\nclosed both");
}

// --- the farewell

TEST(Farewell, WhatTheServerSaysAfterItIsRelayed) {
  PlayEveryWay({}, Greeted() + R"(
    C: QUIT
    -> QUIT
    S+ 221-bye\r\n221 now\r\n250 one more\r\n
    <- 221-bye
    <- 221 now
    <- 250 one more
    C: NOOP
    -> nothing
    S: 421 gone
    <- 421 gone
    C+ \r\n.\r\nMAIL FROM:<a@b.test>
    -> nothing
    <- nothing
    S closes
    closed C)");
}

// --- the end of the program

TEST(ShutDown, NotifiesEveryClientInAnyPhase) {
  const auto held = [](SessionFixture& fixture) { fixture.Names.HoldAnswers(); };
  const struct {
    const char* phase;
    std::function<void(SessionFixture&)> configure;
    std::string before;
    const char* closed;
  } kRows[] = {
      {"its name decides, and is being looked up",
       [&](SessionFixture& fixture) {
         fixture.Settings.ValidateRDNS = 1;
         held(fixture);
       },
       "C: EHLO client.test\n<- nothing", "closed C"},
      {"it was refused", [](SessionFixture& fixture) { fixture.Settings.ValidateRDNS = 1; }, "<- 454 *",
       "closed C"},
      {"the server is being connected",
       [&](SessionFixture& fixture) {
         fixture.Settings.ServerIP = "server.test";
         held(fixture);
       },
       "C: EHLO client.test\n<- nothing", "closed C"},
      {"before the greeting", {}, "S accepts\nC: EHLO client.test\n-> nothing", "closed both"},
      {"inside a command", {}, Greeted() + "C+ NOO\n-> nothing", "closed both"},
      {"while a reply is owed", {}, Greeted() + "C: NOOP\n-> NOOP", "closed both"},
      {"inside a reply", {}, Greeted() + "C: NOOP\n-> NOOP\nS: 250-first\n<- nothing", "closed both"},
      {"where authentication data is asked for",
       {},
       Greeted() + "C: AUTH LOGIN\n-> AUTH LOGIN\nS: 334 go on\n<- 334 go on",
       "closed both"},
      {"inside the content", WithoutHeader,
       InTransaction() + "C: DATA\n-> DATA\nS: 354 go on\n<- 354 go on\nC: text\n-> text", "closed both"},
      {"behind the content", WithoutHeader,
       InTransaction() + "C: DATA\n-> DATA\nS: 354 go on\n<- 354 go on\nC: .\n-> .", "closed both"},
      {"inside a chunk", WithoutHeader, InTransaction() + "C+ BDAT 9\\r\\na\\r\\n\n-> BDAT 9\n-> a",
       "closed both"},
      {"behind 221", {}, Greeted() + "C: QUIT\n-> QUIT\nS: 221 bye\n<- 221 bye", "closed both"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.phase);
    PlayBothWays(row.configure,
                 row.before + "\nshutdown\n<- 421 4.3.2 proxy.test is shutting down.\n" + row.closed);
  }
}

// --- admission

// A client that is refused at once may have sent something already; that must not break off its reply.
TEST(SentAway, AClientThatSpokeFirstGetsTheReason) {
  PlayBothWays([](SessionFixture& fixture) { fixture.Settings.IPAllowList = IPRangeList(); }, R"(
    C+ EHLO client.test\r\nQUIT\r\n
    <- 554 Connection from 127.0.0.1 not allowed.
    closed C)");
}

}  // namespace
}  // namespace trabex
