// Servers that say nothing more, in every phase of a session, and what ServerTimeout makes of them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "report/counters.h"
#include "report/json_log.h"
#include "report/session_report.h"
#include "session/dialogues.h"
#include "session/session_fixture.h"
#include "support/held_port.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kLogged = "log S: {*] Server time-out. Closing connection.\n";
// What the client gets.
const std::string kTold =
    std::string("<- 421 proxy.test is temporarily unavailable.\nclosed both\n") + kLogged;
const std::string kClosed = std::string("closed both\n") + kLogged;

void WithoutHeader(SessionFixture& fixture) {
  fixture.Settings.AddReceived = false;
}

std::string InData() {
  return InTransaction() + Data();
}

std::string InAuthentication() {
  return Greeted() + "C: AUTH LOGIN\n-> AUTH LOGIN\n";
}

std::string InOctets() {
  return Greeting() + Ehlo({"XEXCH50"}) + MailAndRcpt() + "C: XEXCH50 3 2\n-> XEXCH50 3 2\n";
}

enum class Patience {
  kOnce,     // ten seconds
  kTwice,    // twenty
  kForever,  // it owes nothing
};

struct HangCase {
  const char* when;
  Phase phase;
  std::function<void(SessionFixture&)> configure;
  std::string before;
  Patience patience;
  std::string end;  // "" where it owes nothing
};

std::function<void(SessionFixture&)> Preface(std::int32_t send_client_ip, std::int32_t tls) {
  return [=](SessionFixture& fixture) {
    fixture.Settings.SendClientIP = send_client_ip;
    fixture.Settings.TLS.Server = tls;
  };
}

std::vector<HangCase> HangCases() {
  const std::string asked = "S: 220 server ready\n-> EHLO proxy.test\n";
  const std::string offered = asked + "S: 250-server\nS: 250-STARTTLS\nS: 250 XCLIENT ADDR\n";
  const std::string said = "C: EHLO client.test\nS accepts\n";
  return {
      {"greeting", Phase::kServerGreeting, {}, "S accepts\n", Patience::kOnce, kTold},
      {"greeting, with a command that waits", Phase::kServerGreeting, {}, said, Patience::kOnce, kTold},
      {"half a greeting", Phase::kServerGreeting, {}, "S: 220-server\n<- nothing\n", Patience::kOnce, kTold},
      {"half a line", Phase::kServerGreeting, {}, "S+ 22\n<- nothing\n", Patience::kOnce, kTold},
      {"preface: greeting", Phase::kPreface, Preface(3, 0), "S accepts\n", Patience::kOnce, kTold},
      {"preface: EHLO", Phase::kPreface, Preface(3, 0), asked, Patience::kOnce, kTold},
      {"preface: half a reply", Phase::kPreface, Preface(3, 0), asked + "S: 250-server\n", Patience::kOnce,
       kTold},
      {"preface: XCLIENT", Phase::kPreface, Preface(3, 0), offered + "-> XCLIENT *\n", Patience::kOnce,
       kTold},
      {"preface: STARTTLS", Phase::kPreface, Preface(0, server_tls::kStartTls), offered + "-> STARTTLS\n",
       Patience::kOnce, kTold},
      {"preface: header", Phase::kPreface, Preface(1, 0), "-> PROXY *\n", Patience::kOnce, kTold},
      {"EHLO", Phase::kReply, {}, Greeting() + "C: EHLO x\n-> EHLO x\n", Patience::kOnce, kTold},
      {"NOOP", Phase::kReply, {}, Greeted() + "C: NOOP\n-> NOOP\n", Patience::kOnce, kTold},
      {"half a reply",
       Phase::kReply,
       {},
       Greeted() + "C: NOOP\n-> NOOP\nS: 250-half\n",
       Patience::kOnce,
       kTold},
      {"MAIL", Phase::kReply, {}, Greeted() + "C: MAIL FROM:<a@b.test>\n-> MAIL *\n", Patience::kOnce, kTold},
      {"RCPT",
       Phase::kReply,
       {},
       Greeted() + Mail() + "C: RCPT TO:<u@local.test>\n-> RCPT *\n",
       Patience::kOnce,
       kTold},
      {"DATA", Phase::kReply, {}, InTransaction() + "C: DATA\n-> DATA\n", Patience::kOnce, kTold},
      {"AUTH", Phase::kReply, {}, InAuthentication(), Patience::kOnce, kTold},
      {"AUTH, its data",
       Phase::kReply,
       {},
       InAuthentication() + "S: 334 x\n<- 334 x\nC: eA==\n-> eA==\n",
       Patience::kOnce,
       kTold},
      {"QUIT", Phase::kReply, {}, Greeted() + "C: QUIT\n-> QUIT\n", Patience::kOnce, kClosed},
      {"behind 221",
       Phase::kFarewell,
       {},
       Greeted() + "C: QUIT\n-> QUIT\nS: 221 bye\n<- 221 bye\n",
       Patience::kOnce,
       kClosed},
      {"the end of content", Phase::kContentReply, WithoutHeader,
       InData() + "C+ x\\r\\n.\\r\\n\n-> x\n-> .\n", Patience::kTwice, kTold},
      {"half a reply to content", Phase::kContentReply, WithoutHeader,
       InData() + "C+ .\\r\\n\n-> .\nS+ 250 queue\n<- nothing\n", Patience::kTwice, kTold},
      {"a chunk", Phase::kReply, WithoutHeader, InTransaction() + "C+ BDAT 2\\r\\nab\n-> BDAT 2\n*> ab\n",
       Patience::kOnce, kTold},
      {"the last chunk", Phase::kReply, WithoutHeader,
       InTransaction() + "C+ BDAT 2 LAST\\r\\nab\n-> BDAT 2 LAST\n*> ab\n", Patience::kTwice, kTold},
      {"a last chunk without octets", Phase::kReply, WithoutHeader,
       InTransaction() + "C: BDAT 0 LAST\n-> BDAT 0 LAST\n", Patience::kTwice, kTold},
      {"XEXCH50", Phase::kReply, {}, InOctets(), Patience::kOnce, kTold},
      {"the octets of XEXCH50",
       Phase::kContentReply,
       {},
       InOctets() + "S: 354 go\n<- 354 go\nC+ abc\n*> abc\n",
       Patience::kTwice,
       kTold},

      {"between commands", Phase::kCommand, {}, Greeted(), Patience::kForever, ""},
      {"half a reply that nobody waits for",
       Phase::kCommand,
       {},
       Greeted() + "S: 421-soon\n",
       Patience::kForever,
       ""},
      {"inside a command", Phase::kCommand, {}, Greeted() + "C+ NOO\n", Patience::kForever, ""},
      {"authentication data",
       Phase::kAuthData,
       {},
       InAuthentication() + "S: 334 x\n<- 334 x\n",
       Patience::kForever,
       ""},
      {"content", Phase::kDotContent, WithoutHeader, InData() + "C: x\n-> x\n", Patience::kForever, ""},
      {"the octets of a chunk", Phase::kChunk, WithoutHeader,
       InTransaction() + "C+ BDAT 9\\r\\nab\n-> BDAT 9\n*> ab\n", Patience::kForever, ""},
      {"octets that were answered", Phase::kAnsweredOctets, WithoutHeader,
       InTransaction() + "C+ BDAT 9\\r\\nab\n-> BDAT 9\n*> ab\nS: 452 no\n<- 452 no\n", Patience::kForever,
       ""},
      {"octets",
       Phase::kOctets,
       {},
       InOctets() + "S: 354 go\n<- 354 go\nC+ a\n*> a\n",
       Patience::kForever,
       ""},
      {"a chunk that was refused",
       Phase::kDiscard,
       {},
       Greeted() + "C+ BDAT 9\\r\\nab\n<- 503 *\n",
       Patience::kForever,
       ""},
      {"a name in DNS", Phase::kAsking,
       [](SessionFixture& fixture) {
         fixture.Settings.ValidateHELO = 1;
         fixture.Names.SetName(kIPv4Loopback, "other.test");
       },
       Greeting(), Patience::kForever, ""},
      {"a client that was refused", Phase::kCommand,
       [](SessionFixture& fixture) { fixture.Settings.ValidateRDNS = 1; }, "<- 454 *\n", Patience::kForever,
       ""},
      {"a balancer", Phase::kProxyHeader,
       [](SessionFixture& fixture) {
         fixture.Settings.ProxyProtocolFrom = IPRangeList({{kIPv4Loopback, kIPv4Loopback}});
         fixture.Settings.ProxyProtocolTimeout = 600;
       },
       "<- nothing\n", Patience::kForever, ""},
      {"the client's TLS", Phase::kStartTls,
       [](SessionFixture& fixture) {
         fixture.OfferTls();
         fixture.Settings.TLS.HandshakeTimeout = 600;
       },
       AskedForTls(), Patience::kForever, ""},
      {"the client's TLS from its first byte on", Phase::kTls,
       [](SessionFixture& fixture) {
         fixture.OfferTls();
         fixture.OnTlsPort = true;
         fixture.HandshakeAtOnce = false;
         fixture.Settings.TLS.HandshakeTimeout = 600;
       },
       "<- nothing\n", Patience::kForever, ""},
      {"the rest of a message that is too large", Phase::kTooLarge,
       [](SessionFixture& fixture) {
         WithoutHeader(fixture);
         fixture.Settings.MaxSize = 3 * kFixedPointOne;
         fixture.Settings.Service.EnforceMaxSize = true;
       },
       Greeting() + "C: EHLO x\n-> EHLO x\nS: 250 server\n<- 250-server\n<- 250 SIZE 3\n" + MailAndRcpt() +
           Data() + "C+ abcd\nclosed S\n",
       Patience::kForever, ""},
  };
}

void Configure(SessionFixture& fixture, const HangCase& c) {
  fixture.Settings.Service.ServerTimeout = 10;
  fixture.Settings.Timeout = 0;
  if (c.configure) c.configure(fixture);
}

constexpr const char* kNothing = "<- nothing\n-> nothing\n";

TEST(ServerTimeout, EndsASessionWhoseServerOwesSomething) {
  for (const HangCase& c : HangCases()) {
    if (c.patience == Patience::kForever) continue;
    SCOPED_TRACE(c.when);
    const bool twice = c.patience == Patience::kTwice;
    // At once, and in many turns.
    for (const int turns : {1, 37}) {
      SessionFixture fixture;
      Configure(fixture, c);
      ASSERT_EQ(fixture.Play(c.before), "");
      const int patience = twice ? 20000 : 10000;
      for (int turn = 0; turn < turns; ++turn) {
        ASSERT_EQ(fixture.Play("wait " + std::to_string(patience / turns)), "");
      }
      ASSERT_EQ(fixture.Play(kNothing), "");
      EXPECT_EQ(fixture.Sessions().Count(), 1U);
      EXPECT_EQ(fixture.Play("wait 40\n" + c.end), "");
      EXPECT_TRUE(fixture.Until([&] { return fixture.Sessions().Count() == 0; }));
    }
  }
}

TEST(ServerTimeout, LeavesASessionAloneWhoseServerOwesNothing) {
  for (const HangCase& c : HangCases()) {
    if (c.patience != Patience::kForever) continue;
    SCOPED_TRACE(c.when);
    SessionFixture fixture;
    Configure(fixture, c);
    ASSERT_EQ(fixture.Play(c.before), "");
    if (c.phase == Phase::kAsking) {
      fixture.Names.HoldAnswers();
      ASSERT_EQ(fixture.Play("C: EHLO client.test\nasks name client.test\n"), "");
    }
    for (int seconds = 0; seconds < 100; seconds += 10) ASSERT_EQ(fixture.Play("wait 10000"), "");
    EXPECT_EQ(fixture.Play("<- nothing"), "");
    EXPECT_EQ(fixture.Sessions().Count(), 1U);
  }
}

TEST(ServerTimeout, IsTestedInEveryPhase) {
  std::set<Phase> seen{Phase::kEnding};  // the session is over
  for (const HangCase& c : HangCases()) {
    seen.insert(c.phase);
    EXPECT_EQ(AwaitsServer(c.phase), c.patience != Patience::kForever) << c.when;
  }
  EXPECT_FALSE(AwaitsServer(Phase::kEnding));
  EXPECT_EQ(seen.size(), static_cast<std::size_t>(Phase::kEnding) + 1);
}

TEST(ServerTimeout, IsOffByDefault) {
  for (const HangCase& c : HangCases()) {
    // A preface has a time of its own.
    if (c.phase == Phase::kPreface) continue;
    SCOPED_TRACE(c.when);
    SessionFixture fixture;
    Configure(fixture, c);
    fixture.Settings.Service.ServerTimeout = 0;
    ASSERT_EQ(fixture.Play(c.before), "");
    EXPECT_EQ(fixture.Play("wait 500000\n<- nothing"), "");
    EXPECT_EQ(fixture.Sessions().Count(), 1U);
  }
}

TEST(ServerTimeout, BeginsAnewWithEveryByteOfAReply) {
  const auto configure = [](SessionFixture& fixture) { fixture.Settings.Service.ServerTimeout = 10; };
  std::string slow = Greeted() + "C: NOOP\n-> NOOP\n";
  for (const char* byte : {"2", "5", "0", "-", "a", "\\r", "\\n", "2", "5", "0", " ", "b", "\\r"}) {
    slow += std::string("S+ ") + (*byte == ' ' ? "\\x20" : byte) + "\nwait 9900\n<- nothing\n";
  }
  PlayBothWays(configure, slow + "S+ \\n\n<- 250-a\n<- 250 b");
  PlayBothWays(configure, slow + "wait 200\n" + kTold);
}

TEST(ServerTimeout, BeginsWithTheCommandAndNotWithTheOneBefore) {
  const auto configure = [](SessionFixture& fixture) { fixture.Settings.Service.ServerTimeout = 10; };
  std::string commands = Greeted();
  for (int i = 0; i < 5; ++i) {
    commands += "C: NOOP\n-> NOOP\nwait 9900\n<- nothing\nS: 250 ok\n<- 250 ok\nwait 7000\n";
  }
  PlayBothWays(configure, commands + "C: NOOP\n-> NOOP\nwait 9900\n<- nothing\nwait 200\n" + kTold);
  // Behind a longer wait as well.
  PlayBothWays(
      [&](SessionFixture& fixture) {
        configure(fixture);
        WithoutHeader(fixture);
      },
      InData() + "C+ .\\r\\n\n-> .\nwait 12000\n<- nothing\nS: 250 queued\n<- 250 queued\n" +
          "C: NOOP\n-> NOOP\nwait 9900\n<- nothing\nwait 200\n" + kTold);
}

TEST(ServerTimeout, TheConnectionCounts) {
  // A name that is looked up for too long.
  PlayBothWays(
      [](SessionFixture& fixture) {
        fixture.Settings.Service.ServerTimeout = 3;
        fixture.Settings.ServerIP = "server.test";
        fixture.Names.HoldAnswers();
      },
      "wait 3000\n<- nothing\nwait 10\n<- 421 proxy.test is temporarily unavailable.\nclosed C\n" +
          std::string(kLogged));
  // A listener whose queue is full answers nobody.
  HeldPort port;
  const SystemSocket listener = port.Listen(0);
  const TestPeer first = TestPeer::Connect(port.Port());
  SessionFixture fixture;
  fixture.Settings.ServerPort = port.Port();
  fixture.Settings.Service.ServerTimeout = 10;
  Counters counters;
  RecordedLog log;
  JsonLog json{fixture.Settings, fixture.Time, fixture.Loop, log};
  SessionReport report{counters, json, fixture.Time};
  fixture.Observer = &report;
  EXPECT_EQ(
      fixture.Play("C: EHLO client.test\nwait 10000\n<- nothing\nwait 10\n<- 421 proxy.test is temporarily "
                   "unavailable.\nclosed C\n" +
                   std::string(kLogged)),
      "");
  EXPECT_EQ(counters.server_connect_failures, 1U);
  EXPECT_EQ(counters.sessions_ended[static_cast<std::size_t>(SessionEnd::kTimeout)], 1U);
  EXPECT_THAT(report.ServerFailure(), HasSubstr("Server time-out."));
}

TEST(ServerTimeout, TheHandshakeWithTheServerCounts) {
  SessionFixture fixture;
  Preface(0, server_tls::kImplicit)(fixture);
  TlsClientOptions options;
  TlsLoadReport report;
  fixture.Tls.for_server = TlsContext::ForClient(options, report);
  fixture.Settings.Service.ServerTimeout = 10;
  fixture.Settings.TLS.HandshakeTimeout = 600;
  EXPECT_EQ(
      fixture.Play("S accepts\nwait 10000\n<- nothing\nwait 10\n<- 421 *\nclosed C\n" + std::string(kLogged)),
      "");
}

TEST(ServerTimeout, TheLookUpOfAClientsNameIsNotTheServers) {
  SessionFixture fixture;
  Preface(3, 0)(fixture);
  fixture.Settings.Service.ServerTimeout = 3;
  fixture.Names.HoldAnswers();
  EXPECT_EQ(fixture.Play("S: 220 server ready\n-> EHLO proxy.test\nS: 250-server\nS: 250 XCLIENT ADDR NAME\n"
                         "wait 4900\n<- nothing\nanswer\n-> XCLIENT *\nwait 3000\n<- nothing\nwait 10\n" +
                         kTold),
            "");
}

TEST(ServerTimeout, WordsThatWaitForTheClientAreNoSilence) {
  SessionFixture fixture;
  fixture.Settings.Service.ServerTimeout = 10;
  ASSERT_EQ(fixture.Play(Greeted() + "C: NOOP\n-> NOOP"), "");
  TestPeer client = std::move(fixture.ClientPeer());  // not read by the fixture now
  client.HoldLittle();
  const std::string line = "250-" + std::string(500, 'x') + "\r\n";
  std::size_t sent = 0;
  for (std::size_t more = 1; more > 0; sent += more) {
    more = fixture.ServerPeer().Send(std::string_view(line).substr(sent % line.size()));
    fixture.Settle();
    ASSERT_LT(sent, std::size_t{64} << 20);
  }
  for (int i = 0; i < 10; ++i) ASSERT_EQ(fixture.Play("wait 10010"), "");
  EXPECT_EQ(fixture.Sessions().Count(), 1U);
  EXPECT_TRUE(fixture.Until([&] {
    client.Poll();
    // Less than the largest reply that is held waits for its end.
    return client.Received().size() + ReplyAssembler::kMaxReplyBytes + line.size() >= sent;
  }));
  // From here on it is.
  fixture.Settle();
  ASSERT_EQ(fixture.Play("wait 10000"), "");
  EXPECT_EQ(fixture.Sessions().Count(), 1U);
  ASSERT_EQ(fixture.Play("wait 10\n" + std::string(kLogged)), "");
}

TEST(ServerTimeout, AServerThatStillTakesTheContentIsNotSilent) {
  SessionFixture fixture;
  WithoutHeader(fixture);
  fixture.Settings.Service.ServerTimeout = 10;
  ASSERT_EQ(fixture.Play(InData()), "");
  TestPeer server = std::move(fixture.ServerPeer());
  server.HoldLittle();
  const std::string line = std::string(998, 'x') + "\r\n";
  for (int i = 0; i < 1500; ++i) {
    ASSERT_EQ(fixture.ClientPeer().Send(line), line.size());
    fixture.Settle();
  }
  ASSERT_EQ(fixture.ClientPeer().Send(".\r\n"), 3U);
  // It reads a part now and then, which takes much longer than it has for its reply.
  for (int i = 0; i < 8; ++i) {
    std::size_t taken = 0;
    constexpr std::size_t kPart = std::size_t{150} << 10;
    ASSERT_TRUE(fixture.Until([&] { return (taken += server.Take(kPart - taken)) == kPart; }));
    ASSERT_EQ(fixture.Play("wait 5010"), "");
    ASSERT_EQ(fixture.Play("wait 5010"), "");
    ASSERT_EQ(fixture.Sessions().Count(), 1U) << i;
  }
  for (int i = 0; i < 3; ++i) ASSERT_EQ(fixture.Play("wait 10010"), "");
  EXPECT_EQ(fixture.Play("<- 421 *\nclosed C\n" + std::string(kLogged)), "");
}

TEST(ServerTimeout, FollowsAReload) {
  SessionFixture fixture;
  ASSERT_EQ(fixture.Play(Greeted() + "C: NOOP\n-> NOOP\n"), "");
  fixture.Settings.Service.ServerTimeout = 10;
  // The wait that goes on has begun without a bound.
  ASSERT_EQ(fixture.Play("wait 60000\nS: 250 ok\n<- 250 ok\nC: NOOP\n-> NOOP\n"), "");
  fixture.Settings.Service.ServerTimeout = 0;
  ASSERT_EQ(fixture.Play("wait 60000\n<- nothing\nS: 250 ok\n<- 250 ok\nC: NOOP\n-> NOOP\n"), "");
  fixture.Settings.Service.ServerTimeout = 10;
  ASSERT_EQ(fixture.Play("S: 250 ok\n<- 250 ok\nC: NOOP\n-> NOOP\nwait 10000\n<- nothing\nwait 10\n" + kTold),
            "");
}

TEST(ServerTimeout, TheLongestIsLongEnough) {
  SessionFixture fixture;
  WithoutHeader(fixture);
  fixture.Settings.Service.ServerTimeout = 2147483647;
  ASSERT_EQ(fixture.Play(InData() + "C+ .\\r\\n\n-> .\nwait 2000000000\n<- nothing\nS: 250 ok\n<- 250 ok\n"),
            "");
}

TEST(ServerTimeout, IsCountedAndInTheJsonLog) {
  const struct {
    std::string script;
    SessionEnd how;
    bool told;
  } rows[] = {
      {"S accepts\nwait 10010\n<- 421 *\nclosed both", SessionEnd::kTimeout, true},
      {Greeted() + "C: NOOP\n-> NOOP\nwait 10010\n<- 421 *\nclosed both", SessionEnd::kTimeout, true},
      {Greeted() + "C: QUIT\n-> QUIT\nwait 10010\nclosed both", SessionEnd::kTimeout, false},
      {Greeted() + "C: QUIT\n-> QUIT\nS: 221 bye\n<- 221 bye\nwait 10010\nclosed both", SessionEnd::kQuit,
       false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.script);
    const TempFolder folder;
    SessionFixture fixture;
    Counters counters;
    RecordedLog log;
    JsonLog json{fixture.Settings, fixture.Time, fixture.Loop, log};
    SessionReport report{counters, json, fixture.Time};
    fixture.Observer = &report;
    fixture.Settings.Service.ServerTimeout = 10;
    fixture.Settings.Service.JsonLog = folder / "trabex.json";
    fixture.Settings.Service.JsonEvents = {"refusal", "error", "session"};
    ASSERT_EQ(fixture.Play(row.script), "");
    fixture.Settle();
    json.Flush();
    EXPECT_EQ(counters.sessions_ended[static_cast<std::size_t>(row.how)], 1U);
    EXPECT_EQ(counters.replies[CountedReplyIndex(ReplyKind::kServerError, "")], row.told ? 1U : 0U);
    EXPECT_EQ(counters.server_connect_failures, 0U);
    const std::string text = ReadFile(fixture.Settings.Service.JsonLog);
    EXPECT_THAT(text, HasSubstr("\"side\":\"server\",\"number\":10060,\"text\":\"Server time-out.\"}"));
    const std::string refusal = "\"stage\":\"end\",\"key\":\"ServerError\",\"code\":421,";
    EXPECT_THAT(text,
                row.told ? testing::Matcher<std::string>(HasSubstr(refusal)) : Not(HasSubstr("refusal")));
    EXPECT_THAT(text, HasSubstr(row.how == SessionEnd::kQuit ? "\"how\":\"quit\"}" : "\"how\":\"timeout\"}"));
    fixture.Observer = nullptr;
  }
}

}  // namespace
}  // namespace trabex
