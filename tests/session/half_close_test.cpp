// One side ends its sending and still listens. For either side that is hanging up: what it said before still
// arrives, then both connections close; nothing more is said to it but what the other side had said by then.
#include <gtest/gtest.h>

#include <string>

#include "session/dialogues.h"
#include "session/session_fixture.h"

namespace trabex {
namespace {

// A trace header alone would wait a while for the content after it, in each of the many dialogues here.
void WithoutHeader(SessionFixture& fixture) {
  fixture.Settings.AddReceived = false;
}

std::string InPlainContent() {
  return InTransaction() + R"(
    C: DATA
    -> DATA
    S: 354 go on
    <- 354 go on
)";
}

struct Ending {
  const char* when;
  std::string before;
  std::string after;
};

// Plays `ending` with `shuts` between its halves; neither side holds its connection open by itself.
void PlayEnding(const Ending& ending, const std::string& shuts) {
  SCOPED_TRACE(ending.when);
  PlayBothWays(WithoutHeader, ending.before + "\n" + shuts + "\n" + ending.after + "\nclosed both");
}

TEST(HalfClose, OfTheClientEndsTheSession) {
  const std::string in_chunk = InTransaction() + R"(
    C+ BDAT 9\r\nab\r\n
    -> BDAT 9
    -> ab
)";
  const Ending kRows[] = {
      {"before the greeting", "S accepts", ""},
      {"between two commands", Greeted(), ""},
      {"inside a command", Greeted() + "C+ NOO", ""},
      {"inside a command's line end", Greeted() + R"(C+ NOOP\r)", ""},
      {"behind a command, whose reply does not reach it", Greeted() + "C: NOOP", "-> NOOP"},
      {"while a reply is owed", Greeted() + "C: NOOP\n-> NOOP", ""},
      {"inside a reply", Greeted() + "C: NOOP\n-> NOOP\nS: 250-first", ""},
      {"behind a command that the proxy answered", Greeted() + "C: DATA\n<- 503 5.5.1 *", ""},
      {"in a transaction", InTransaction(), ""},
      {"between DATA and 354", InTransaction() + "C: DATA\n-> DATA", ""},
      {"before the content", InPlainContent(), ""},
      {"inside the content", InPlainContent() + "C: half of", "-> half of"},
      {"behind the content", InPlainContent() + "C: text\nC: .", "-> text\n-> ."},
      {"inside a chunk", in_chunk, ""},
      {"behind a chunk", in_chunk + R"(C+ cde\r\n)", "-> cde"},
      {"behind a chunk that is answered", in_chunk + R"(C+ cde\r\n)" + "\n-> cde\nS: 250 ok\n<- 250 ok", ""},
      {"where authentication data is asked for",
       Greeted() + "C: AUTH LOGIN\n-> AUTH LOGIN\nS: 334 go on\n<- 334 go on", ""},
      {"inside authentication data",
       Greeted() + "C: AUTH LOGIN\n-> AUTH LOGIN\nS: 334 go on\n<- 334 go on\nC+ c2Vj", ""},
      {"behind QUIT", Greeted() + "C: QUIT", "-> QUIT"},
      {"behind the reply to QUIT", Greeted() + "C: QUIT\n-> QUIT\nS: 221 bye\n<- 221 bye", ""},
  };
  for (const Ending& row : kRows) PlayEnding(row, "C shuts");
}

// The end comes after lines that wait for their turn. It is noticed when they are read from the connection,
// at the latest when what they wait for has come.
TEST(HalfClose, OfTheClientAfterLinesSentAheadEndsTheSession) {
  const struct {
    const char* when;
    std::string before;
    const char* heard;   // by the server, before it says anything
    const char* answer;  // of the server, if it still has a connection then
  } kRows[] = {
      {"before the greeting", R"(C+ EHLO client.test\r\nNOOP\r\n)", "", "220 server ready\r\n"},
      {"behind a command", Greeted() + R"(C+ NOOP\r\nRSET\r\nVRFY x\r\n)", "NOOP\r\n", "250 ok\r\n"},
      {"behind the content", InPlainContent() + R"(C+ text\r\n.\r\nQUIT\r\n)", "text\r\n.\r\n",
       "250 queued\r\n"},
      {"behind QUIT", Greeted() + R"(C+ QUIT\r\nNOOP\r\n)", "QUIT\r\n", "221 bye\r\n"},
  };
  for (const auto& row : kRows) {
    for (const Delivery delivery : {Delivery::kWhole, Delivery::kByteByByte}) {
      SCOPED_TRACE(row.when);
      SessionFixture fixture(delivery);
      WithoutHeader(fixture);
      ASSERT_EQ(fixture.Play(row.before + "\nS accepts\nC shuts"), "");
      EXPECT_EQ(fixture.ServerPeer().Received(), row.heard);
      if (fixture.Sessions().Count() > 0) fixture.ServerPeer().Send(row.answer);
      EXPECT_TRUE(
          fixture.Until([&] { return fixture.ServerPeer().AtEnd() && fixture.ClientPeer().AtEnd(); }));
      EXPECT_EQ(fixture.Sessions().Count(), 0U);
    }
  }
}

// What is not a whole line reaches the server as far as it came. What would be the end of the message with
// one byte more is not sent as it.
TEST(HalfClose, OfTheClientInsideALineOfContentLosesNoByte) {
  PlayBothWays(WithoutHeader, InPlainContent() + R"(
    C+ text\r\nhalf of
    C shuts
    -> text
    *> half of
    closed both)");
  PlayBothWays(WithoutHeader, InPlainContent() + R"(
    C+ text\r\n.\r
    C shuts
    -> text
    *> .
    closed both)");
}

TEST(HalfClose, OfAClientWithoutAServerEndsTheSession) {
  const struct {
    const char* stage;
    void (*configure)(SessionFixture&);
    const char* before;
  } kRows[] = {
      {"its name decides, and is being looked up",
       [](SessionFixture& fixture) {
         fixture.Settings.ValidateRDNS = 1;
         fixture.Names.HoldAnswers();
       },
       "C: EHLO client.test"},
      {"it was refused", [](SessionFixture& fixture) { fixture.Settings.ValidateRDNS = 1; },
       "<- 454 *\nC: NOOP\n<- 503 *"},
      {"the server's name is being looked up",
       [](SessionFixture& fixture) {
         fixture.Settings.ServerIP = "server.test";
         fixture.Names.SetName(kIPv4Loopback, "client.test");
         fixture.Names.HoldAnswers();
       },
       "C: EHLO client.test"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.stage);
    SessionFixture fixture;
    row.configure(fixture);
    EXPECT_EQ(fixture.Play(std::string(row.before) + "\n<- nothing\nC shuts\nclosed C"), "");
    EXPECT_EQ(fixture.Sessions().Count(), 0U);
    EXPECT_EQ(fixture.Names.Waiting(), 0U);
  }
}

TEST(HalfClose, OfAClientWhoseGreetingNameIsLookedUpEndsTheSession) {
  SessionFixture fixture;
  fixture.Settings.ValidateHELO = 1;
  ASSERT_EQ(fixture.Play("S: 220 server ready\n<- 220 server ready"), "");
  fixture.Names.HoldAnswers();
  EXPECT_EQ(fixture.Play("C: EHLO client.test\n-> nothing\nC shuts\nclosed both"), "");
  EXPECT_EQ(fixture.Names.Waiting(), 0U);
}

TEST(HalfClose, OfTheServerEndsTheSession) {
  const std::string asked = Greeted() + "C: NOOP\n-> NOOP\n";
  const Ending kRows[] = {
      {"before the greeting", "S accepts\nC: EHLO client.test", ""},
      {"inside the greeting", "S: 220-server", "<- 220-server"},
      {"behind a greeting that refuses", "S: 554 no service", "<- 554 no service"},
      {"between two commands", Greeted(), ""},
      {"with a farewell", Greeted() + "S: 421 time is up", "<- 421 time is up"},
      {"while the client is inside a command", Greeted() + "C+ NOO\n<- nothing", ""},
      {"instead of a reply", asked, ""},
      {"behind a reply", asked + "S: 250 ok", "<- 250 ok"},
      {"between the lines of a reply", asked + "S: 250-first", "<- 250-first"},
      {"inside the code of a reply", asked + "S+ 25", "<- 25"},
      {"inside the first line of a reply", asked + "S+ 250-fir", "<- 250-fir"},
      {"inside the last line of a reply", asked + R"(S+ 250-first\r\n250 sec)", "<- 250-first\n<- 250 sec"},
      {"instead of a reply, with commands sent ahead", Greeted() + "C+ NOOP\\r\\nRSET\\r\\n\n-> NOOP", ""},
      {"instead of 354", InTransaction() + "C: DATA\n-> DATA", ""},
      {"before the content", InPlainContent(), ""},
      {"while content is under way", InPlainContent() + "C: half of\n-> half of", ""},
      {"while content is under way, with a refusal", InPlainContent() + "C: half of\n-> half of\nS: 452 full",
       "<- 452 full"},
      {"behind the content", InPlainContent() + "C: text\nC: .\n-> text\n-> .", ""},
      {"behind the reply to the content", InPlainContent() + "C: text\nC: .\n-> text\n-> .\nS: 250 queued",
       "<- 250 queued"},
      {"while a chunk is under way",
       InTransaction() + R"(C+ BDAT 9 LAST\r\nab\r\n)" + "\n-> BDAT 9 LAST\n-> ab", ""},
      {"where authentication data is asked for", Greeted() + "C: AUTH LOGIN\n-> AUTH LOGIN\nS: 334 go on",
       "<- 334 go on"},
      {"instead of a reply to QUIT", Greeted() + "C: QUIT\n-> QUIT", ""},
      {"behind the reply to QUIT", Greeted() + "C: QUIT\n-> QUIT\nS: 221 bye", "<- 221 bye"},
  };
  for (const Ending& row : kRows) PlayEnding(row, "S shuts");
}

// It still takes what was on its way to it.
TEST(HalfClose, OfTheServerCostsItNoContent) {
  SessionFixture fixture;
  WithoutHeader(fixture);
  ASSERT_EQ(fixture.Play(InPlainContent()), "");
  fixture.ClientPeer().Send("one\r\ntwo\r\n");
  fixture.Settle();
  fixture.ServerPeer().ShutDownSending();
  EXPECT_EQ(fixture.Play("-> one\n-> two\nclosed both"), "");
}

// The answer to a look-up is dropped then.
TEST(HalfClose, OfTheServerEndsTheLookUpOfAGreetingName) {
  SessionFixture fixture;
  fixture.Settings.ValidateHELO = 1;
  ASSERT_EQ(fixture.Play("S: 220 server ready\n<- 220 server ready"), "");
  fixture.Names.HoldAnswers();
  EXPECT_EQ(fixture.Play("C: EHLO client.test\n-> nothing\nS: 421 time is up\nS shuts\n<- 421 time is up\n"
                         "closed both"),
            "");
  EXPECT_EQ(fixture.Names.Waiting(), 0U);
}

}  // namespace
}  // namespace trabex
