// What goes through, in which order, and when it waits.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <utility>

#include "base/text.h"
#include "session/dialogues.h"
#include "session/session_fixture.h"

namespace trabex {
namespace {

TEST(Relay, AMessageByData) {
  PlayEveryWay({}, InContent() + R"(
    C: Subject: hello
    -> Subject: hello
    C:
    ->
    C: ..dot
    -> ..dot
    C: .
    -> .
    S: 250 queued
    <- 250 queued
    C: QUIT
    -> QUIT
    S: 221 bye
    <- 221 bye
    S closes
    closed C)");
}

TEST(Relay, TwoMessagesInOneSession) {
  const std::string message = MailAndRcpt() + R"(
    C: DATA
    -> DATA
    S: 354 go on
    wait 200
    -> Received: *
    ->       with ESMTP; *
    <- 354 go on
    C: text
    C: .
    -> text
    -> .
    S: 250 queued
    <- 250 queued
)";
  PlayEveryWay({}, Greeted() + message + message);
}

// The trace header waits for the content, but not for long.
TEST(Relay, TheTraceHeaderLeavesWithTheContent) {
  const std::string begin = InTransaction() + R"(
    C: DATA
    -> DATA
    S: 354 go on
    <- 354 go on
    wait 140
    -> nothing
)";
  const std::string header = "    -> Received: *\n    ->       with ESMTP; *\n";
  PlayBothWays({}, begin + "    C: text\n" + header + R"(
    -> text
    C: .
    -> .)");
  PlayBothWays({}, begin + "    wait 60\n" + header + R"(
    -> nothing
    C: text
    -> text)");
  // A session that ends leaves nothing behind.
  PlayBothWays({}, begin + "    C closes\n" + header + "    closed S");
}

TEST(Relay, TheTraceHeaderIsNoSegmentOfItsOwn) {
  SessionFixture fixture;
  ASSERT_EQ(fixture.Play(InTransaction() + "C: DATA\n-> DATA\nS: 354 go on\n<- 354 go on\n-> nothing"), "");
  const std::uint32_t before = fixture.ServerPeer().SegmentsReceived();
  ASSERT_EQ(fixture.Play("C: text\n-> Received: *\n->       with ESMTP; *\n-> text"), "");
  EXPECT_EQ(fixture.ServerPeer().SegmentsReceived() - before, 1U);
}

TEST(Relay, AMessageWithoutReceivedHeader) {
  PlayEveryWay([](SessionFixture& fixture) { fixture.Settings.AddReceived = false; }, InTransaction() + R"(
    C: DATA
    -> DATA
    S: 354 go on
    <- 354 go on
    -> nothing
    C: .
    -> .)");
}

TEST(Relay, EveryReplyComesInOrderToAClientThatSendsAhead) {
  PlayEveryWay({}, Greeted() + R"(
    C+ MAIL FROM:<a@b.test>\r\nRCPT TO:<x@other.test>\r\nFOO\r\nRCPT TO:<u@local.test>\r\nDATA\r\n
    -> MAIL FROM:<a@b.test>
    -> nothing
    S: 250 sender ok
    <- 250 sender ok
    -> RCPT TO:<x@other.test>
    S: 550-no
    -> nothing
    S: 550 such user
    <- 550-no
    <- 550 such user
    -> FOO
    S: 500 what
    <- 500 what
    -> RCPT TO:<u@local.test>
    S: 250 recipient ok
    <- 250 recipient ok
    -> DATA)");
}

TEST(Relay, LinesAnsweredByTheProxyDoNotStallTheNextOnes) {
  PlayEveryWay({}, R"(
    C+ MAIL FROM:<a@b.test>\r\nSTARTTLS\r\nRCPT TO:<u@local.test>\r\nNOOP\r\n
    S: 220 server ready
    <- 220 server ready
    <- 503 Bad sequence of commands.
    <- 502 5.5.1 Command not implemented.
    <- 503 Bad sequence of commands.
    -> NOOP)");
}

TEST(Relay, NothingIsTakenBeforeTheGreeting) {
  PlayEveryWay({}, R"(
    C: EHLO client.test
    S accepts
    -> nothing
    S: 220-wait
    -> nothing
    S: 220 server ready
    <- 220-wait
    <- 220 server ready
    -> EHLO client.test)");
}

TEST(Relay, ALineWithoutItsEndWaits) {
  PlayEveryWay({}, R"(
    S: 220 server ready
    <- 220 server ready
    C+ NOO
    -> nothing
    C+ P\r
    -> nothing
    C+ \n
    -> NOOP)");
}

TEST(Relay, AReplyWithoutItsEndWaits) {
  PlayEveryWay({}, R"(
    S+ 220 server
    <- nothing
    S+ \r
    <- nothing
    S+ \n
    <- 220 server)");
}

// A reply of `lines` lines, as the transcript's lines of `mark`.
std::string LongReply(const char* mark, int lines) {
  std::string result;
  for (int i = 0; i < lines; ++i) {
    result.append(mark).append(i + 1 < lines ? " 214-" : " 214 ").append(std::string(500, 'x')).append("\n");
  }
  return result;
}

TEST(Relay, AReplyThatIsLongerThanAnyPassesInPieces) {
  SessionFixture fixture;
  EXPECT_EQ(fixture.Play(Greeted() + "C: HELP\n-> HELP\n" + LongReply("S:", 400) + LongReply("<-", 400) + R"(
    C: NOOP
    -> NOOP)"),
            "");
}

TEST(Relay, AnEhloReplyThatIsLongerThanAnyEndsTheSession) {
  std::string reply = LongReply("S:", 400);
  reply = ReplaceAll(reply, "214", "250");
  SessionFixture fixture;
  const std::string failure = fixture.Play("S: 220 hi\n<- 220 hi\nC: EHLO x\n-> EHLO x\n" + reply);
  fixture.Settle();
  EXPECT_EQ(fixture.Play("<- 421 proxy.test is temporarily unavailable.\nclosed C"), "") << failure;
}

// Its end may be extensions.
TEST(Relay, AReplyThatIsLongerThanAnyAndNobodyAskedForEndsTheSession) {
  std::string reply = LongReply("S:", 400);
  reply = ReplaceAll(reply, "214", "250");
  SessionFixture fixture;
  const std::string failure = fixture.Play(Greeted() + reply);
  fixture.Settle();
  EXPECT_EQ(fixture.Play("<- 421 proxy.test is temporarily unavailable.\nclosed C"), "") << failure;
}

TEST(Relay, WhatFollowsTheContentWaitsForTheReply) {
  PlayEveryWay({}, InContent() + R"(
    C+ text\r\n.\r\nRSET\r\nMAIL FROM:<c@d.test>\r\n
    -> text
    -> .
    -> nothing
    S: 250 queued
    <- 250 queued
    -> RSET
    -> nothing
    S: 250 reset
    <- 250 reset
    -> MAIL FROM:<c@d.test>)");
}

TEST(Relay, BdatOctetsAreContentWhateverTheyHold) {
  PlayEveryWay({}, InTransaction() + R"(
    C+ BDAT 12\r\nQUIT\r\n.\r\nab\0BDAT 2 LAST\r\nx\nNOOP\r\n
    -> BDAT 127
    -> Received: from client.test (Unknown [127.0.0.1]) by proxy.test
    ->       with ESMTP; Sun, 15 Nov 2026 16:54:24 -0000
    -> QUIT
    -> .
    S: 250 ok
    <- 250 ok
    -> ab\0BDAT 2 LAST
    S: 250 queued
    <- 250 queued
    -> x\nNOOP)");
}

// What the network takes at once never lies in a queue between the two sockets.
TEST(Relay, ContentIsPassedOnFromWhereItWasReceived) {
  SessionFixture fixture;
  ASSERT_EQ(fixture.Play(InContent()), "");
  const std::uint64_t copied = fixture.Sockets_().CopiedBytes();
  std::string part;
  while (part.size() < 30000) part.append(std::string(70, 'x')).append(kCrLf);
  std::string content;
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(fixture.ClientPeer().Send(part), part.size());
    content += part;
    ASSERT_TRUE(fixture.Until([&] { return fixture.ServerPeer().Received().size() >= content.size(); }));
  }
  EXPECT_TRUE(fixture.ServerPeer().Received() == content);
  EXPECT_EQ(fixture.Sockets_().CopiedBytes(), copied);
}

TEST(Relay, AServerThatDoesNotAnswerGetsOneCommandOnly) {
  PlayEveryWay({}, Greeted() + R"(
    C: NOOP
    C: RSET
    -> NOOP
    -> nothing
    <- nothing)");
}

// Its lines wait in its own connection, and replies that the client does not take use no memory of the proxy.
TEST(Relay, AClientThatDoesNotReadIsHeld) {
  constexpr std::size_t kMost_bytes = std::size_t{64} << 20;
  SessionFixture fixture;
  fixture.Settings.MaxBadSeq = std::numeric_limits<std::int32_t>::max();
  const std::string reply = "503 " + std::string(2000, 'x');
  cReplaces replaces;
  replaces.SetName("BadSeq");
  replaces.Add("", reply, true);
  fixture.Settings.ResponseChanges.Add(replaces);
  ASSERT_EQ(fixture.Play("S: 220 server ready\n<- 220 server ready"), "");
  TestPeer client = std::move(fixture.ClientPeer());  // not read by the fixture now
  const std::string line = "RCPT " + std::string(1000, 'x') + "\r\n";
  std::size_t sent = 0;
  for (std::size_t more = 1; more > 0 && sent < kMost_bytes; sent += more) {
    more = client.Send(std::string_view(line).substr(sent % line.size()));
    if (more == 0) {
      fixture.Settle();
      more = client.Send(std::string_view(line).substr(sent % line.size()));
    }
  }
  EXPECT_LT(sent, kMost_bytes);

  // As soon as it reads, it gets every reply.
  const std::size_t wanted_bytes = sent / line.size() * (reply.size() + 2);
  const auto all_there = [&] {
    client.Poll();
    return client.Received().size() >= wanted_bytes;
  };
  EXPECT_TRUE(fixture.Until(all_there)) << client.Received().size() << " of " << wanted_bytes;
  EXPECT_EQ(client.Received().size(), wanted_bytes);
}

TEST(Relay, AnUnaskedReplyReachesTheClientAndChangesNothing) {
  PlayEveryWay({}, Greeted() + R"(
    S: 250 hello again
    <- 250 hello again
    C: RCPT TO:<u@local.test>
    <- 503 5.5.1 Bad sequence of commands.)");
}

TEST(Relay, AServerThatAnswersInsideTheContentEndsTheSession) {
  PlayEveryWay({}, InContent() + R"(
    C: half of
    -> half of
    S: 452 disk full
    <- 452 disk full
    closed both)");
}

}  // namespace
}  // namespace trabex
