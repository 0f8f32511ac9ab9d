// Clients that send much at a time get all their answers, and do not keep those of others waiting.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "session/dialogues.h"
#include "session/session_fixture.h"

namespace trabex {
namespace {

// So many lines of one session are taken before the others have their turn.
constexpr int kMaxLinesAtOnce = 32;

// The proxy answers every line itself, and each answer names its line.
void RefuseAll(SessionFixture& fixture) {
  fixture.Settings.ValidateHELO = 4;
  fixture.Settings.HELOBlackList.Add("*", {.patterns = {"*"}});
}

std::string Greeting(const std::string& name) {
  return "EHLO " + name + "\r\n";
}

std::string Answer(const std::string& name) {
  return "550 Disallowed domain name: " + name + ".\r\n";
}

// A session's own lines, in one segment, and the answers to them.
struct Burst {
  std::string lines;
  std::string answers;
};

Burst Lines(const std::string& who, int count) {
  Burst result;
  for (int i = 1; i <= count; ++i) {
    const std::string name = who + "-" + std::to_string(i);
    result.lines += Greeting(name);
    result.answers += Answer(name);
  }
  return result;
}

// Which log line says that the client's line with `name` was taken.
std::size_t Taken(const SessionFixture& fixture, const std::string& name) {
  const auto& lines = fixture.LogLines();
  const auto found = std::find_if(lines.begin(), lines.end(), [&](const std::string& line) {
    return line.find("< EHLO " + name + "\u00B6") != std::string::npos;
  });
  EXPECT_NE(found, lines.end()) << name;
  return static_cast<std::size_t>(found - lines.begin());
}

TEST(Turns, AllLinesOfOneSegmentAreAnsweredInOrder) {
  for (const int count :
       {kMaxLinesAtOnce, kMaxLinesAtOnce + 1, 40, 2 * kMaxLinesAtOnce, 2 * kMaxLinesAtOnce + 1}) {
    SCOPED_TRACE(count);
    SessionFixture fixture;
    RefuseAll(fixture);
    ASSERT_EQ(fixture.Play("S: 220 server ready\n<- 220 server ready"), "");
    const Burst a = Lines("a", count);
    ASSERT_EQ(fixture.ClientPeer().Send(a.lines), a.lines.size());
    // Nothing else happens that could wake the session.
    EXPECT_TRUE(fixture.Until([&] { return fixture.ClientPeer().Received().size() >= a.answers.size(); }));
    EXPECT_EQ(fixture.ClientPeer().Received(), a.answers);
  }
}

// Two sessions that have been greeted; the second one's peers are the fixture's.
struct TwoSessions {
  TwoSessions() {
    RefuseAll(fixture);
    EXPECT_EQ(fixture.Play("S: 220 server ready\n<- 220 server ready"), "");
    first = std::move(fixture.ClientPeer());
    first_server = std::move(fixture.ServerPeer());
    EXPECT_EQ(fixture.Play("connect\nS: 220 server ready\n<- 220 server ready"), "");
  }

  SessionFixture fixture;
  TestPeer first;
  TestPeer first_server;
};

TEST(Turns, OtherSessionsAreServedBetweenTheLinesOfOne) {
  TwoSessions sessions;
  SessionFixture& fixture = sessions.fixture;
  TestPeer& first = sessions.first;
  const Burst a = Lines("a", 3 * kMaxLinesAtOnce);
  ASSERT_EQ(first.Send(a.lines), a.lines.size());
  ASSERT_EQ(fixture.ClientPeer().Send(Greeting("other")), Greeting("other").size());
  EXPECT_TRUE(fixture.Until([&] {
    first.Poll();
    return first.Received().size() >= a.answers.size();
  }));
  EXPECT_EQ(first.Received(), a.answers);
  EXPECT_EQ(fixture.ClientPeer().Received(), Answer("other"));
  EXPECT_LT(Taken(fixture, "a-" + std::to_string(kMaxLinesAtOnce)), Taken(fixture, "other"));
  EXPECT_LT(Taken(fixture, "other"), Taken(fixture, "a-" + std::to_string(kMaxLinesAtOnce + 1)));
}

// Two clients that both send much take turns.
TEST(Turns, SessionsAlternate) {
  TwoSessions sessions;
  SessionFixture& fixture = sessions.fixture;
  TestPeer& first = sessions.first;
  const Burst a = Lines("a", 3 * kMaxLinesAtOnce);
  const Burst b = Lines("b", 3 * kMaxLinesAtOnce);
  ASSERT_EQ(first.Send(a.lines), a.lines.size());
  ASSERT_EQ(fixture.ClientPeer().Send(b.lines), b.lines.size());
  EXPECT_TRUE(fixture.Until([&] {
    first.Poll();
    return first.Received().size() >= a.answers.size() &&
           fixture.ClientPeer().Received().size() >= b.answers.size();
  }));
  EXPECT_EQ(first.Received(), a.answers);
  EXPECT_EQ(fixture.ClientPeer().Received(), b.answers);
  for (int round = 1; round < 3; ++round) {
    const std::string last = std::to_string(round * kMaxLinesAtOnce);
    const std::string next = std::to_string(round * kMaxLinesAtOnce + 1);
    EXPECT_LT(Taken(fixture, "a-" + last), Taken(fixture, "b-" + next));
    EXPECT_LT(Taken(fixture, "b-" + last), Taken(fixture, "a-" + next));
  }
}

// The octets of refused chunks lie between the lines; they are no lines, and cost no answer.
TEST(Turns, DroppedOctetsBetweenTheLinesChangeNothing) {
  SessionFixture fixture;
  RefuseAll(fixture);
  fixture.Settings.MaxBadSeq = 1000;
  ASSERT_EQ(fixture.Play("S: 220 server ready\n<- 220 server ready"), "");
  std::string lines;
  std::string answers;
  for (int i = 0; i < 2 * kMaxLinesAtOnce; ++i) {
    const std::string name = "a-" + std::to_string(i);
    lines += "BDAT 11\r\nEHLO evil\r\n" + Greeting(name);
    answers += "503 Bad sequence of commands.\r\n" + Answer(name);
  }
  ASSERT_EQ(fixture.ClientPeer().Send(lines), lines.size());
  EXPECT_TRUE(fixture.Until([&] { return fixture.ClientPeer().Received().size() >= answers.size(); }));
  EXPECT_EQ(fixture.ClientPeer().Received(), answers);
}

// Lines that the server answers among them: each waits for its reply, and those after it wait too.
TEST(Turns, ForwardedLinesKeepTheirPlaceAmongTheRefused) {
  std::string sent;
  std::string dialogue;
  for (int i = 0; i < 50; ++i) {
    if (i % 20 == 15) {
      sent += "NOOP\\r\\n";
      dialogue += "-> NOOP\n-> nothing\n<- nothing\nS: 250 ok\n<- 250 ok\n";
    } else {
      sent += "RCPT TO:<u@local.test>\\r\\n";
      dialogue += "<- 503 Bad sequence of commands.\n";
    }
  }
  PlayEveryWay([](SessionFixture& fixture) { fixture.Settings.MaxBadSeq = 1000; },
               "S: 220 server ready\n<- 220 server ready\nC+ " + sent + "\n" + dialogue);
}

// The session has gone before its next turn.
TEST(Turns, NoLineIsTakenAfterTheEnd) {
  for (const char* end : {"C resets", "S closes", "shutdown"}) {
    SCOPED_TRACE(end);
    SessionFixture fixture;
    RefuseAll(fixture);
    ASSERT_EQ(fixture.Play("S: 220 server ready\n<- 220 server ready"), "");
    const std::string lines = Lines("a", 10 * kMaxLinesAtOnce).lines;
    ASSERT_EQ(fixture.ClientPeer().Send(lines), lines.size());
    fixture.Loop.RunOnce(Milliseconds(1000));
    ASSERT_LT(Taken(fixture, "a-1"), fixture.LogLines().size());
    EXPECT_EQ(fixture.Play(end), "");
    EXPECT_EQ(fixture.Sessions().Count(), 0U);
    const auto& log = fixture.LogLines();
    const auto closed = std::find_if(log.begin(), log.end(), [](const std::string& line) {
      return line.find("Disconnected. ") != std::string::npos;
    });
    EXPECT_TRUE(std::none_of(
        closed, log.end(), [](const std::string& line) { return line.find("< EHLO") != std::string::npos; }));
  }
}

// A session that ends while others wait for their turn is not waited for.
TEST(Turns, LinesAfterQuitAreNotAnsweredWithoutAServer) {
  PlayBothWays([](SessionFixture& fixture) { fixture.Settings.ValidateRDNS = 1; }, R"(
    <- 454 Unable to verify DNS PTR record for 127.0.0.1.
    C+ NOOP\r\nQUIT\r\nNOOP\r\n
    <- 503 Bad sequence of commands.
    <- 221 2.0.0 proxy.test closing connection.
    closed C)");
}

}  // namespace
}  // namespace trabex
