// How sessions end: what was said still arrives, and nothing is left behind.
#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

#include "session/dialogues.h"
#include "session/session_fixture.h"
#include "support/told_by_system.h"

namespace trabex {
namespace {

TEST(Closing, TheClientHangsUp) {
  PlayBothWays({}, Greeted() + R"(
    C closes
    closed S
    log R: {*] Disconnected. Bytes received/sent: 18/*
    log S: {*] Disconnected. Bytes received/sent: *)");
}

TEST(Closing, AClientThatSentAheadAndBreaksOffEndsTheSession) {
  // Before the greeting, and while a reply is owed: it fails to reach the client, whose next lines are not
  // taken. Where resets are not told a client that has gone so early is none.
  if (ResetsAreTold()) {
    PlayEveryWay({}, R"(
      C+ EHLO c.test\r\nNOOP\r\n
      C resets
      S: 220 ready
      closed S)");
  }
  PlayEveryWay({}, Greeted() + R"(
    C+ NOOP\r\nNOOP\r\n
    -> NOOP
    C resets
    S: 250 ok
    closed S)");
}

TEST(Closing, TheServerHangsUp) {
  PlayEveryWay({}, Greeted() + "S closes\nclosed C");
}

TEST(Closing, TheServersLastWordsReachTheClient) {
  PlayEveryWay({}, Greeted() + R"(
    C: NOOP
    -> NOOP
    S: 421 too late
    S closes
    <- 421 too late
    closed C)");
}

// The server closed, or broke off, before its last line had its end.
TEST(Closing, LastWordsWithoutTheirLineEndReachTheClientToo) {
  const struct {
    const char* what;
    std::string before;
    const char* said;
    std::string heard;
  } kRows[] = {
      {"in the greeting", "S accepts", "421 not today", "<- 421 not today"},
      {"in the greeting's code", "S accepts", "42", "<- 42"},
      {"between two commands", Greeted(), "421 time is up", "<- 421 time is up"},
      {"instead of a reply", Greeted() + "C: NOOP\n-> NOOP", "421 time is up", "<- 421 time is up"},
      {"behind a reply", Greeted() + "C: NOOP\n-> NOOP", R"(250 ok\r\n421 up)", "<- 250 ok\n<- 421 up"},
      {"in a further line of a reply", Greeted(), R"(421-first\r\n421-sec)", "<- 421-first\n<- 421-sec"},
      {"in the last line of a reply", Greeted(), R"(250-a\r\n250 b)", "<- 250-a\n<- 250 b"},
      {"inside the line end", Greeted(), R"(421 time is up\r)", "<- 421 time is up"},
      {"behind a line feed alone", Greeted(), R"(421 up\n)", R"(<- 421 up\n)"},
      {"with a NUL", Greeted(), R"(421 a\0b)", R"(<- 421 a\0b)"},
      {"in the content", InContent() + "C: half of\n-> half of", "421 leaving", "<- 421 leaving"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    const std::string said = row.before + "\nS+ " + row.said;
    PlayEveryWay({}, said + "\nS closes\n" + row.heard + "\nclosed C");
    if (!ResetsAreTold()) continue;
    // A server that spoke inside the content is gone for the client as soon as that is said.
    const bool in_content = row.before.starts_with(InContent());
    PlayBothWays({}, said + "\nwait 0\nS resets\n" + row.heard +
                         (in_content ? "" : "\n<- 421 proxy.test is temporarily unavailable.") + R"(
      closed C
      log S: {*] Error 10054. *)");
  }
}

// The server asks for the content and is gone before it gets the first of it.
TEST(Closing, LastWordsComeInTheOrderInWhichTheyWereSaid) {
  SessionFixture fixture;
  EXPECT_EQ(fixture.Play(InTransaction() + R"(
    C: DATA
    -> DATA
    S+ 354 go on\r\n421 time is up
    S resets
    <- 354 go on
    <- 421 time is up
    closed C)"),
            "");
}

TEST(Closing, LastWordsWithoutTheirLineEndAreLoggedAsOthersAre) {
  PlayBothWays({}, Greeted() + R"(
    S+ 421 time is up
    S closes
    <- 421 time is up
    closed C
    log S: {*] < 421 time is up¶
    log R: {*] > 421 time is up)");
}

// Only their line end is missing; they are changed as other replies are.
TEST(Closing, LastWordsWithoutTheirLineEndPassTheFilter) {
  const auto configure = [](SessionFixture& fixture) {
    cReplaces replaces;
    replaces.SetName("421");
    replaces.Add("", "421 come again", true);
    fixture.Settings.ResponseChanges.Add(replaces);
  };
  PlayEveryWay(configure, Greeted() + R"(
    S+ 421 server.inside.test is leaving
    S closes
    <- 421 come again
    closed C)");
  PlayEveryWay({}, R"(
    S: 220 server ready
    <- 220 server ready
    C: EHLO client.test
    -> EHLO client.test
    S+ 250-server\r\n250-STARTTLS\r\n250 8BITM
    S closes
    <- 250-server
    <- 250 8BITM
    closed C)");
}

TEST(Closing, WhatTheClientSentAheadDoesNotCostItTheReply) {
  PlayEveryWay({}, Greeted() + R"(
    C+ NOOP\r\nNOOP\r\nNOOP\r\n
    -> NOOP
    S: 421 too late
    S closes
    <- 421 too late
    closed C)");
}

// The server is about to close: whatever follows would only bring a second farewell, of an error.
TEST(Closing, NothingIsTakenAfterThe221ToQuit) {
  const std::string quit_accepted = Greeted() + R"(
    C+ QUIT\r\nNOOP\r\nDATA\r\n
    -> QUIT
    S: 221 bye
    <- 221 bye
    C: NOOP
    -> nothing
    <- nothing
)";
  PlayEveryWay({}, quit_accepted + "S closes\nclosed C");
  // It need not be the server that hangs up.
  PlayEveryWay({}, quit_accepted + "C closes\nclosed S");
}

TEST(Closing, AServerThatRefusesQuitStaysConnected) {
  PlayEveryWay({}, Greeted() + R"(
    C+ QUIT\r\nNOOP\r\n
    -> QUIT
    S: 500 stay
    <- 500 stay
    -> NOOP)");
}

TEST(Closing, TheServerResets) {
  if (ResetsAreTold()) return PlayEveryWay({}, Greeted() + "S resets\n<- *");
  PlayBothWays({}, Greeted() + "S resets\nclosed C");
}

// Both are gone before the session is notified of the first one: it ends with that one, and drops the other.
TEST(Closing, BothResetAtOnce) {
  const struct {
    const char* what;
    bool client_first;
    std::vector<std::string> logged;
  } kRows[] = {
      {"the client first",
       true,
       {"R: Error 10054. Connection reset by peer.", "R: Disconnected. Bytes received/sent: 18/77",
        "S: Disconnected. Bytes received/sent: 77/18"}},
      {"the server first",
       false,
       {"S: Error 10054. Connection reset by peer.", "R: > 421 proxy.test is temporarily unavailable.",
        "R: Error 10054. Connection reset by peer.", "R: Disconnected. Bytes received/sent: 18/77",
        "S: Disconnected. Bytes received/sent: 77/18"}},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    SessionFixture fixture;
    ASSERT_EQ(fixture.Play(Greeted()), "");
    const std::size_t before = fixture.LogLines().size();
    if (!row.client_first) fixture.ServerPeer().Reset();
    fixture.ClientPeer().Reset();
    fixture.ServerPeer().Reset();
    fixture.Settle();
    std::vector<std::string> logged;
    for (std::size_t i = before; i < fixture.LogLines().size(); ++i) {
      const std::string& line = fixture.LogLines()[i];
      logged.push_back(line.substr(0, 3) + line.substr(line.find("] ") + 2));
    }
    std::vector<std::string> expected = row.logged;
    if (!ResetsAreTold()) {
      std::erase_if(expected,
                    [](const std::string& line) { return line.find("Disconnected") == std::string::npos; });
    }
    EXPECT_EQ(logged, expected);
  }
}

TEST(Closing, TheServerRefuses) {
  PlayBothWays([](SessionFixture& fixture) { fixture.Server().Close(); }, R"(
    <- 421 proxy.test is temporarily unavailable.
    closed C
    log S: {*] Error 10061. Connection refused.)");
}

TEST(Closing, TheServersNameIsUnknown) {
  PlayBothWays([](SessionFixture& fixture) { fixture.Settings.ServerIP = "nowhere.test"; }, R"(
    <- 421 proxy.test is temporarily unavailable.
    closed C
    log S: {*] Error 11001. Host not found.)");
}

TEST(Closing, ARefusalInsideTheContentReachesTheClientThoughTheServerResets) {
  SessionFixture fixture;
  ASSERT_EQ(fixture.Play(InContent()), "");
  // The server speaks and breaks the connection with content unread; the client's next content is there
  // first.
  fixture.ClientPeer().Send("more content\r\n");
  fixture.Settle();
  fixture.ServerPeer().Send("552 too much\r\n");
  fixture.ClientPeer().Send("and more\r\n");
  fixture.ServerPeer().Close();
  EXPECT_EQ(fixture.Play("<- 552 too much\nclosed C"), "");
}

TEST(Closing, TheEndInsideTheContentIsNotForgottenWhileTheServerHadSpoken) {
  SessionFixture fixture;
  ASSERT_EQ(fixture.Play(InContent()), "");
  fixture.ClientPeer().Send("text\r\n.\n");
  fixture.ServerPeer().Send("421 too slow\r\n");
  EXPECT_TRUE(fixture.Until([&] { return fixture.ServerPeer().AtEnd() && fixture.ClientPeer().AtEnd(); }));
  EXPECT_EQ(fixture.Sessions().Count(), 0U);
}

TEST(Closing, ASecondReplyIsNotTakenForTheAnswerToTheNextCommand) {
  SessionFixture fixture;
  EXPECT_EQ(fixture.Play(Greeted() + R"(
    C+ NOOP\r\nMAIL FROM:<a@b.test>\r\nRCPT TO:<u@local.test>\r\n
    -> NOOP
    S+ 250 ok\r\n250 unasked\r\n
    <- 250 ok
    <- 250 unasked
    -> MAIL FROM:<a@b.test>
    <- nothing
    -> nothing
    S: 550 no
    <- 550 no
    <- 503 5.5.1 Bad sequence of commands.)"),
            "");
}

TEST(Closing, ANamedServerIsFound) {
  PlayEveryWay(
      [](SessionFixture& fixture) {
        fixture.Settings.ServerIP = "server.test";
        fixture.Names.SetAddresses("server.test", {kIPv4Loopback});
      },
      "S: 220 server ready\n<- 220 server ready");
}

TEST(Closing, ShutDownNotifiesTheClients) {
  PlayEveryWay({}, Greeted() + R"(
    C+ NOOP\r\nNOOP\r\n
    -> NOOP
    shutdown
    <- 421 4.3.2 proxy.test is shutting down.
    closed both)");
}

TEST(Closing, TooManyCommandsOutOfOrder) {
  PlayBothWays([](SessionFixture& fixture) { fixture.Settings.MaxBadSeq = 2; }, R"(
    S: 220 server ready
    <- 220 server ready
    C: DATA
    <- 503 Bad sequence of commands.
    C: DATA
    <- 503 Bad sequence of commands.
    C+ DATA\r\nNOOP\r\n
    <- 503 Bad sequence of commands.
    wait 400
    <- nothing
    wait 200
    closed both
    log R: {*] Maximum out-of-order commands exceeded. Closing connection.)");
}

// A client that its reply does not reach any more is gone; nobody is left to wait for.
TEST(Closing, AClientThatCannotBeAnsweredGetsNoPause) {
  SessionFixture fixture;
  fixture.Settings.MaxBadSeq = 0;
  ASSERT_EQ(fixture.Play("S: 220 server ready\n<- 220 server ready"), "");
  fixture.ClientPeer().Send("DATA\r\n");
  fixture.ClientPeer().Reset();
  EXPECT_EQ(fixture.Play("closed S\nlog R: {*] < DATA*\nlog R: {*] > 503 *\nlog R: {*] Error *"), "");
  for (const std::string& line : fixture.LogLines()) EXPECT_EQ(line.find("out-of-order"), std::string::npos);
}

// The limit goes down while the session is open, and its next line finds the server gone.
TEST(Closing, AServerThatCannotBeReachedEndsTheSessionWithoutAPause) {
  SessionFixture fixture;
  ASSERT_EQ(fixture.Play(Greeted() + "C: DATA\n<- 503 5.5.1 *"), "");
  fixture.Settings.MaxBadSeq = 0;
  fixture.ClientPeer().Send("NOOP\r\n");
  fixture.ServerPeer().Reset();
  EXPECT_EQ(fixture.Play("<- 421 proxy.test is temporarily unavailable.\nclosed C\nlog S: {*] > NOOP*"), "");
  for (const std::string& line : fixture.LogLines()) EXPECT_EQ(line.find("out-of-order"), std::string::npos);
}

// The server has asked for the content of a message that it will not get.
TEST(Closing, NothingIsSentToTheServerForAClientThatHasGone) {
  SessionFixture fixture;
  ASSERT_EQ(fixture.Play(InTransaction() + "C: DATA\n-> DATA"), "");
  fixture.ServerPeer().Send("354 go on\r\n");
  fixture.ClientPeer().Reset();
  EXPECT_EQ(fixture.Play("closed S\nlog R: {*] > 354 go on"), "");
}

TEST(Closing, ALineThatIsTooLong) {
  const std::string longest = "NOOP " + std::string(4096 - 7, 'x');
  PlayEveryWay({}, "S: 220 server ready\n<- 220 server ready\nC: " + longest + "\n-> " + longest +
                       "\nS: 250 ok\n<- 250 ok\nC+ " + longest +
                       "xx\n<- 500 5.5.6 Line too long.\nclosed both");
}

TEST(Closing, AnAmbiguousEndBreaksTheMessageOff) {
  PlayEveryWay({}, InContent() + R"(
    C+ text\r\n.\nMAIL FROM:<evil@b.test>\r\n
    <- 554 5.6.0 Ambiguous end of message content.
    -> text
    closed C)");
}

}  // namespace
}  // namespace trabex
