// How sessions end: what was said still arrives, and nothing is left behind.
#include <gtest/gtest.h>

#include "session/dialogues.h"
#include "session/transcript.h"

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
  // taken.
  PlayBothWays({}, R"(
    C! EHLO c.test\r\nNOOP\r\n
    C resets
    S> 220 ready
    closed S)");
  PlayBothWays({}, Greeted() + R"(
    C! NOOP\r\nNOOP\r\n
    S= NOOP
    C resets
    S> 250 ok
    closed S)");
}

TEST(Closing, TheServerHangsUp) {
  PlayBothWays({}, Greeted() + "S closes\nclosed C");
}

TEST(Closing, TheServersLastWordsReachTheClient) {
  PlayBothWays({}, Greeted() + R"(
    C> NOOP
    S= NOOP
    S> 421 too late
    S closes
    C= 421 too late
    closed C)");
}

TEST(Closing, SoDoWholeLinesOfABrokenReply) {
  PlayBothWays({}, Greeted() + R"(
    S! 421-first\r\n421-sec
    S closes
    C= 421-first
    closed C)");
}

TEST(Closing, WhatTheClientSentAheadDoesNotCostItTheReply) {
  PlayBothWays({}, Greeted() + R"(
    C! NOOP\r\nNOOP\r\nNOOP\r\n
    S= NOOP
    S> 421 too late
    S closes
    C= 421 too late
    closed C)");
}

// The server is about to close: whatever follows would only bring a second farewell, of an error.
TEST(Closing, NothingIsTakenAfterTheServersGoodBye) {
  const std::string good_bye = Greeted() + R"(
    C! QUIT\r\nNOOP\r\nDATA\r\n
    S= QUIT
    S> 221 bye
    C= 221 bye
    C> NOOP
    S= nothing
    C= nothing
)";
  PlayBothWays({}, good_bye + "S closes\nclosed C");
  // It need not be the server that hangs up.
  PlayBothWays({}, good_bye + "C closes\nclosed S");
}

TEST(Closing, AServerThatDoesNotSayGoodByeIsStillThere) {
  PlayBothWays({}, Greeted() + R"(
    C! QUIT\r\nNOOP\r\n
    S= QUIT
    S> 500 stay
    C= 500 stay
    S= NOOP)");
}

TEST(Closing, TheServerResets) {
  PlayBothWays({}, Greeted() + R"(
    S resets
    C= *
    )");
}

TEST(Closing, TheServerRefuses) {
  PlayBothWays([](SessionWorld& world) { world.Server().Close(); }, R"(
    C= 421 proxy.test is temporarily unavailable.
    closed C
    log S: {*] Error 10061. Connection refused.)");
}

TEST(Closing, TheServersNameIsUnknown) {
  PlayBothWays([](SessionWorld& world) { world.Settings.ServerIP = "nowhere.test"; }, R"(
    C= 421 proxy.test is temporarily unavailable.
    closed C
    log S: {*] Error 11001. Host not found.)");
}

TEST(Closing, ARefusalInsideTheContentReachesTheClientThoughTheServerResets) {
  SessionWorld world;
  ASSERT_EQ(world.Play(InContent()), "");
  // The server speaks and breaks the connection with content unread; the client's next content is there
  // first.
  world.ClientPeer().Send("more content\r\n");
  world.Settle();
  world.ServerPeer().Send("552 too much\r\n");
  world.ClientPeer().Send("and more\r\n");
  world.ServerPeer().Close();
  EXPECT_EQ(world.Play("C= 552 too much\nclosed C"), "");
}

TEST(Closing, TheEndInsideTheContentIsNotForgottenWhileTheServerHadSpoken) {
  SessionWorld world;
  ASSERT_EQ(world.Play(InContent()), "");
  world.ClientPeer().Send("text\r\n.\n");
  world.ServerPeer().Send("421 too slow\r\n");
  EXPECT_TRUE(world.Until([&] { return world.ServerPeer().AtEnd() && world.ClientPeer().AtEnd(); }));
  EXPECT_EQ(world.Sessions().Count(), 0U);
}

TEST(Closing, ASecondReplyIsNotTakenForTheAnswerToTheNextCommand) {
  SessionWorld world;
  EXPECT_EQ(world.Play(Greeted() + R"(
    C! NOOP\r\nMAIL FROM:<a@b.test>\r\nRCPT TO:<u@local.test>\r\n
    S= NOOP
    S! 250 ok\r\n250 unasked\r\n
    C= 250 ok
    C= 250 unasked
    S= MAIL FROM:<a@b.test>
    C= nothing
    S= nothing
    S> 550 no
    C= 550 no
    C= 503 5.5.1 Bad sequence of commands.)"),
            "");
}

TEST(Closing, ANamedServerIsFound) {
  PlayBothWays(
      [](SessionWorld& world) {
        world.Settings.ServerIP = "server.test";
        world.Names.SetAddresses("server.test", {0x7F000001});
      },
      "S> 220 server ready\nC= 220 server ready");
}

TEST(Closing, ShutDownTellsTheClients) {
  PlayBothWays({}, Greeted() + R"(
    C! NOOP\r\nNOOP\r\n
    S= NOOP
    shutdown
    C= 421 4.3.2 proxy.test is shutting down.
    closed both)");
}

TEST(Closing, TooManyCommandsOutOfOrder) {
  PlayBothWays([](SessionWorld& world) { world.Settings.MaxBadSeq = 2; }, R"(
    S> 220 server ready
    C= 220 server ready
    C> DATA
    C= 503 Bad sequence of commands.
    C> DATA
    C= 503 Bad sequence of commands.
    C! DATA\r\nNOOP\r\n
    C= 503 Bad sequence of commands.
    wait 400
    C= nothing
    wait 200
    closed both
    log R: {*] Maximum out-of-order commands exceeded. Closing connection.)");
}

TEST(Closing, ALineThatIsTooLong) {
  const std::string longest = "NOOP " + std::string(4096 - 7, 'x');
  PlayBothWays({}, "S> 220 server ready\nC= 220 server ready\nC> " + longest + "\nS= " + longest +
                       "\nS> 250 ok\nC= 250 ok\nC! " + longest +
                       "xx\nC= 500 5.5.6 Line too long.\nclosed both");
}

TEST(Closing, AnAmbiguousEndBreaksTheMessageOff) {
  PlayBothWays({}, InContent() + R"(
    C! text\r\n.\nMAIL FROM:<evil@b.test>\r\n
    C= 554 5.6.0 Ambiguous end of message content.
    S= text
    closed C)");
}

}  // namespace
}  // namespace trabex
