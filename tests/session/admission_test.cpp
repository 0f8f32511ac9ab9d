// Which clients are admitted, and the replies to the others.
#include <gtest/gtest.h>

#include "session/dialogues.h"
#include "session/session_fixture.h"

namespace trabex {
namespace {

constexpr IPAddress kLocalhost = kIPv4Loopback;

TEST(Admission, GreetingComesFromTheServer) {
  PlayBothWays({}, R"(
    <- nothing
    S: 220 server ready
    <- 220 server ready
    log R: {*} [      127.0.0.1] Connection Request.
    log S: {*} [      127.0.0.1] Connected.
    log S: {*} [      127.0.0.1] < 220 server ready¶
    log R: {*} [      127.0.0.1] > 220 server ready)");
}

TEST(Admission, OneConnectionTooMany) {
  PlayBothWays([](SessionFixture& fixture) { fixture.Settings.MaxConnections = 1; }, R"(
    S: 220 server ready
    <- 220 server ready
    connect
    <- 421 proxy.test is too busy. Try later.
    closed C
    log R: {*} [      127.0.0.1] > 421 proxy.test is too busy. Try later.)");
}

TEST(Admission, TheCountIncludesTheNewSession) {
  PlayBothWays([](SessionFixture& fixture) { fixture.Settings.MaxConnections = 2; }, R"(
    S: 220 first
    <- 220 first
    connect
    S: 220 second
    <- 220 second)");
}

TEST(Admission, TheLimitHoldsForAWhiteListedClientToo) {
  PlayBothWays(
      [](SessionFixture& fixture) {
        fixture.Settings.MaxConnections = 1;
        fixture.Settings.IPWhiteList = IPRangeList({{kIPv4Loopback, kIPv4Loopback}});
      },
      R"(
    S: 220 server ready
    <- 220 server ready
    connect
    <- 421 proxy.test is too busy. Try later.
    closed C)");
}

TEST(Admission, ABlackListedAddressIsRefusedWhateverItsName) {
  PlayBothWays(
      [](SessionFixture& fixture) {
        fixture.Settings.IPBlackList = IPRangeList({{kIPv4Loopback, kIPv4Loopback}});
        fixture.Settings.ValidateRDNS = 3;
        fixture.Settings.HostsWhiteList.Add("*", {.patterns = {"*"}});
        fixture.Settings.HostsWhiteList.Add("[]", {.patterns = {"[]"}});
      },
      R"(
    <- 554 Connection from 127.0.0.1 not allowed.
    closed C)");
}

TEST(Admission, BlackListedAddress) {
  PlayBothWays(
      [](SessionFixture& fixture) {
        fixture.Settings.IPBlackList = IPRangeList({{kIPv4Loopback, kIPv4Loopback}});
      },
      R"(
    <- 554 Connection from 127.0.0.1 not allowed.
    closed C
    log R: {*] Disconnected. Bytes received/sent: 0/*)");
}

TEST(Admission, AddressOutsideTheAllowList) {
  PlayBothWays(
      [](SessionFixture& fixture) {
        fixture.Settings.IPAllowList = IPRangeList({{IPAddress::IPv4(1), IPAddress::IPv4(2)}});
      },
      R"(
    <- 554 Connection from 127.0.0.1 not allowed.
    closed C)");
}

TEST(Admission, WhiteListWinsOverBlackListAndSkipsTheName) {
  PlayBothWays(
      [](SessionFixture& fixture) {
        fixture.Settings.IPBlackList = IPRangeList({{kIPv4Loopback, kIPv4Loopback}});
        fixture.Settings.IPWhiteList = IPRangeList({{kIPv4Loopback, kIPv4Loopback}});
        fixture.Settings.ValidateRDNS = 3;
      },
      "S: 220 server ready\n<- 220 server ready");
}

TEST(Admission, NoNameIsRefusedButStaysOpen) {
  PlayBothWays([](SessionFixture& fixture) { fixture.Settings.ValidateRDNS = 1; }, R"(
    <- 454 Unable to verify DNS PTR record for 127.0.0.1.
    C: EHLO client.test
    <- 503 Bad sequence of commands.
    C: MAIL FROM:<a@b.test>
    <- 503 Bad sequence of commands.
    C: QUIT
    <- 221 2.0.0 proxy.test closing connection.
    closed C)");
}

TEST(Admission, RemoteOnlyCheckLetsALocalClientWithoutNameIn) {
  PlayBothWays([](SessionFixture& fixture) { fixture.Settings.ValidateRDNS = 2; }, R"(
    S: 220 server ready
    <- 220 server ready
    connect 127.0.0.9
    <- 454 Unable to verify DNS PTR record for 127.0.0.9.)");
}

TEST(Admission, BlackListedName) {
  const auto configure = [](SessionFixture& fixture) {
    fixture.Settings.ValidateRDNS = 1;
    fixture.Settings.HostsBlackList.Add("*.bad.test", {.patterns = {"*.bad.test"}});
    fixture.Names.SetName(kLocalhost, "mail.bad.test");
  };
  PlayBothWays(configure, R"(
    <- 554 Connection from mail.bad.test [127.0.0.1] not allowed.
    C: NOOP
    <- 503 Bad sequence of commands.)");
}

TEST(Admission, NameOutsideTheAllowList) {
  const auto configure = [](SessionFixture& fixture) {
    fixture.Settings.ValidateRDNS = 1;
    fixture.Settings.HostsAllowList = ExpressionList();
    fixture.Settings.HostsAllowList.Add("*.good.test", {.patterns = {"*.good.test"}});
    fixture.Names.SetName(kLocalhost, "mail.other.test");
  };
  PlayBothWays(configure, R"(
    <- 554 Connection from mail.other.test [127.0.0.1] not allowed.
    C: NOOP
    <- 503 Bad sequence of commands.)");
}

TEST(Admission, WhiteListedNameWins) {
  const auto configure = [](SessionFixture& fixture) {
    fixture.Settings.ValidateRDNS = 1;
    fixture.Settings.HostsBlackList.Add("*.bad.test", {.patterns = {"*.bad.test"}});
    fixture.Settings.HostsWhiteList.Add("mail.*", {.patterns = {"mail.*"}});
    fixture.Names.SetName(kLocalhost, "mail.bad.test");
  };
  PlayBothWays(configure, "S: 220 server ready\n<- 220 server ready");
}

TEST(Admission, NameListsCountOnlyWhereNamesAreChecked) {
  const auto configure = [](SessionFixture& fixture) {
    fixture.Settings.ValidateRDNS = 2;
    fixture.Settings.HostsBlackList.Add("*", {.patterns = {"*"}});
    fixture.Names.SetName(kLocalhost, "mail.bad.test");
  };
  PlayBothWays(configure, "S: 220 server ready\n<- 220 server ready");
}

TEST(Admission, WaitsForTheNameWhereItDecides) {
  SessionFixture fixture;
  fixture.Settings.ValidateRDNS = 1;
  fixture.Names.SetName(kLocalhost, "good.test");
  fixture.Names.HoldAnswers();
  EXPECT_EQ(fixture.Play(R"(
    C+ EHLO client.test\r\n
    <- nothing
    answer
    S: 220 server ready
    <- 220 server ready
    -> EHLO client.test)"),
            "");
}

TEST(Admission, OnlyTheFirstCommandWaitsForANameThatDecidesNothing) {
  SessionFixture fixture;
  fixture.Names.HoldAnswers();
  EXPECT_EQ(fixture.Play(R"(
    S: 220 server ready
    <- 220 server ready
    C: EHLO client.test
    -> nothing
    answer
    -> EHLO client.test)"),
            "");
}

TEST(Admission, LookUpEndsWithItsSession) {
  SessionFixture fixture;
  fixture.Settings.ValidateRDNS = 1;
  fixture.Names.HoldAnswers();
  EXPECT_EQ(fixture.Play("C closes"), "");
  EXPECT_EQ(fixture.Sessions().Count(), 0U);
  fixture.Names.Deliver();
  fixture.Settle();
}

// The name is what the owner of the address says; only its own addresses tell whether it is the client's.
TEST(ConfirmedName, IsTheOnlyOneThatCounts) {
  const struct {
    const char* name;
    std::vector<IPAddress> addresses;
    const char* transcript;
  } rows[] = {
      {"mail.good.test", {IP("10.0.0.1"), kLocalhost}, "S: 220 server ready\n<- 220 server ready"},
      {"mail.good.test", {IP("10.0.0.1")}, "<- 454 Unable to verify DNS PTR record for 127.0.0.1."},
      {"mail.good.test", {}, "<- 454 Unable to verify DNS PTR record for 127.0.0.1."},
      {"mail.other.test", {kLocalhost}, "<- 554 Connection from mail.other.test [127.0.0.1] not allowed."},
      {"mail.other.test", {IP("10.0.0.1")}, "<- 454 Unable to verify DNS PTR record for 127.0.0.1."},
      // No list sees a name that is not the client's.
      {"mail.white.test", {kLocalhost}, "S: 220 server ready\n<- 220 server ready"},
      {"mail.white.test", {}, "<- 454 Unable to verify DNS PTR record for 127.0.0.1."},
  };
  for (const auto& row : rows) {
    const auto configure = [&](SessionFixture& fixture) {
      fixture.Settings.ConfirmHostNames = true;
      fixture.Settings.ValidateRDNS = 1;
      fixture.Settings.HostsAllowList = ExpressionList();
      fixture.Settings.HostsAllowList.Add("*.good.test", {.patterns = {"*.good.test"}});
      fixture.Settings.HostsWhiteList.Add("*.white.test", {.patterns = {"*.white.test"}});
      fixture.Names.SetName(kLocalhost, row.name);
      fixture.Names.SetAddresses(row.name, row.addresses);
    };
    SCOPED_TRACE(std::string(row.name) + " with " + std::to_string(row.addresses.size()));
    PlayBothWays(configure, row.transcript);
  }
}

TEST(ConfirmedName, IsWhatRepliesHeaderAndGreylistingHear) {
  class Greylisting final : public GreylistCheck {
   public:
    GreylistVerdict ShouldDefer(std::optional<std::string_view> host_name, const IPAddress&, std::string_view,
                                std::string_view) override {
      names.emplace_back(host_name.value_or("?"));
      return false;
    }
    std::vector<std::string> names;
  };
  for (const bool confirm : {false, true}) {
    for (const bool leads_back : {false, true}) {
      Greylisting greylisting;
      SessionFixture fixture;
      fixture.Settings.ConfirmHostNames = confirm;
      fixture.Settings.LocalIPs = IPRangeList();
      fixture.Settings.GreyListing.Enabled = true;
      fixture.Settings.ValidateHELO = 2;
      fixture.Greylisting = &greylisting;
      fixture.Names.SetName(kLocalhost, "mail.client.test");
      fixture.Names.SetAddresses("mail.client.test", {leads_back ? kLocalhost : IP("10.0.0.1")});
      cReplaces replaces;
      replaces.SetName("NOOP.250");
      replaces.Add("", "250 {%remotehostname%}", false);
      fixture.Settings.ResponseChanges.Add(replaces);
      const bool named = leads_back || !confirm;
      const std::string name = named ? "mail.client.test" : "Unknown";
      // Named so it need not be looked up; without a name HELO's own is, and is another's.
      EXPECT_EQ(
          fixture.Play(std::string("S: 220 server ready\n<- 220 server ready\nC: HELO mail.client.test\n") +
                       (named ? "" :
                              R"(
    <- 550 Domain mail.client.test doesn't correspond to IP address 127.0.0.1.
    C: HELO [127.0.0.1]
)") + "-> HELO *\nS: 250 ok\n<- 250 ok\n" +
                       R"(
    C: NOOP
    -> NOOP
    S: 250 ok
    <- 250 )" + name + "\n" +
                       MailAndRcpt() + R"(
    C: DATA
    -> DATA
    S: 354 go on
    C+ text\r\n
    -> Received: from * ()" +
                       name + R"( [127.0.0.1]) by proxy.test)"),
          "");
      EXPECT_EQ(greylisting.names, std::vector<std::string>{named ? "mail.client.test" : ""});
      EXPECT_EQ(fixture.Names.ConfirmedNameRequests(), confirm ? 1U : 0U);
      EXPECT_EQ(fixture.Names.NameRequests(), 1U);
      EXPECT_EQ(fixture.Names.AddressRequests(), named ? 0U : 2U);
    }
  }
}

TEST(ConfirmedName, ItsLookUpEndsWithItsSession) {
  for (const std::int32_t checked : {0, 1}) {
    SessionFixture fixture;
    fixture.Settings.ConfirmHostNames = true;
    fixture.Settings.ValidateRDNS = checked;
    fixture.Names.HoldAnswers();
    fixture.Start();
    EXPECT_TRUE(fixture.Until([&] { return fixture.Names.Waiting() == 1; }));
    EXPECT_EQ(fixture.Play("C closes"), "");
    EXPECT_TRUE(fixture.Until([&] { return fixture.Sessions().Count() == 0; }));
    EXPECT_EQ(fixture.Names.Waiting(), 0U);
    EXPECT_EQ(fixture.Names.Cancelled(), 1U);
  }
}

TEST(TimeOut, EndsASessionThatGetsNoServer) {
  PlayBothWays(
      [](SessionFixture& fixture) {
        fixture.Settings.ValidateRDNS = 1;
        fixture.Settings.Timeout = 60;
      },
      R"(
    <- 454 Unable to verify DNS PTR record for 127.0.0.1.
    wait 50000
    C: NOOP
    <- 503 Bad sequence of commands.
    wait 59000
    C: NOOP
    <- 503 Bad sequence of commands.
    wait 61000
    closed C
    log R: {*] Timeout exceeded. Closing connection.)");
}

// `line` every ten seconds, for so many seconds.
std::string EveryTenSeconds(const std::string& line, int seconds) {
  std::string result;
  for (int passed = 0; passed < seconds; passed += 10) {
    result.append(line).append("\nwait 10000\n");
  }
  return result;
}

// The stages of a session in which the time-out counts, each for as long as the test likes.
const struct {
  const char* name;
  void (*configure)(SessionFixture&);
  const char* begin;
  const char* answer;  // to a line
} kTimedStages[] = {
    {"refused",
     [](SessionFixture& fixture) {
       fixture.Settings.ValidateRDNS = 1;
       fixture.Settings.Timeout = 60;
       fixture.Settings.MaxBadSeq = 1000;
     },
     "<- 454 Unable to verify DNS PTR record for 127.0.0.1.\n", "<- 503 Bad sequence of commands.\n"},
    {"its name decides, and is being looked up",
     [](SessionFixture& fixture) {
       fixture.Settings.ValidateRDNS = 1;
       fixture.Settings.Timeout = 60;
       fixture.Names.HoldAnswers();
     },
     "", ""},
    {"the server is being connected",
     [](SessionFixture& fixture) {
       fixture.Settings.ServerIP = "server.test";
       fixture.Settings.Timeout = 60;
       fixture.Names.HoldAnswers();
     },
     "", ""},
};

constexpr const char* kTimedOut = R"(
    closed C
    log R: {*] Timeout exceeded. Closing connection.)";

TEST(TimeOut, BytesThatMakeNoLineDoNotRenewIt) {
  for (const auto& stage : kTimedStages) {
    SCOPED_TRACE(stage.name);
    for (const char* piece : {R"(C+ x)", R"(C+ \r)", R"(C+ \n)"}) {
      PlayBothWays(stage.configure, stage.begin + EveryTenSeconds(piece, 60) + "<- nothing\n" +
                                        EveryTenSeconds(piece, 10) + kTimedOut);
    }
  }
}

TEST(TimeOut, ACompleteLineRenewsIt) {
  for (const auto& stage : kTimedStages) {
    SCOPED_TRACE(stage.name);
    const std::string answer = stage.answer;
    PlayBothWays(stage.configure, stage.begin + EveryTenSeconds("C: NOOP\n" + answer, 200) +
                                      EveryTenSeconds("<- nothing", 60) + kTimedOut);
    // At the moment that its end comes, and once.
    PlayBothWays(stage.configure, stage.begin + EveryTenSeconds(R"(C+ NOOP\r)", 10) +
                                      EveryTenSeconds("<- nothing", 40) + "C+ \\n\n" + answer +
                                      EveryTenSeconds("C+ x", 60) + "<- nothing\n" +
                                      EveryTenSeconds("C+ x", 10) + kTimedOut);
  }
}

TEST(TimeOut, LinesSentAheadRenewItOnce) {
  for (const auto& stage : kTimedStages) {
    SCOPED_TRACE(stage.name);
    const std::string answer = stage.answer;
    PlayBothWays(stage.configure, stage.begin + EveryTenSeconds("C+ x", 50) + "C+ \\r\\nNOOP\\r\\nNOO\n" +
                                      answer + answer + EveryTenSeconds("C+ x", 60) + "<- nothing\n" +
                                      EveryTenSeconds("C+ x", 10) + kTimedOut);
  }
}

// The octets of a refused BDAT are no commands, so there are no lines among them.
TEST(TimeOut, DroppedOctetsDoNotRenewIt) {
  const auto& refused = kTimedStages[0];
  const std::string bad_sequence = refused.answer;
  PlayBothWays(refused.configure, refused.begin + ("C: BDAT 2000000000\n" + bad_sequence) +
                                      EveryTenSeconds(R"(C+ x\r\n)", 60) + "<- nothing\n" +
                                      EveryTenSeconds(R"(C+ \r\n)", 10) + kTimedOut);
  // A line after them does, also one that comes with the last of them.
  for (const int seconds : {20, 30}) {
    PlayBothWays(refused.configure,
                 refused.begin + ("C: BDAT 6\n" + bad_sequence) + EveryTenSeconds(R"(C+ \r\n)", seconds) +
                     (seconds == 20 ? "C+ \\r\\nNOOP\\r\\n\n" : "C: NOOP\n") + bad_sequence +
                     EveryTenSeconds("C+ x", 60) + "<- nothing\n" + EveryTenSeconds("C+ x", 10) + kTimedOut);
  }
}

TEST(TimeOut, NeverEndsASessionWithAServer) {
  PlayBothWays([](SessionFixture& fixture) { fixture.Settings.Timeout = 60; }, R"(
    S: 220 server ready
    <- 220 server ready
    wait 100000000
    C: NOOP
    -> NOOP)");
}

TEST(TimeOut, ZeroMeansNone) {
  PlayBothWays(
      [](SessionFixture& fixture) {
        fixture.Settings.ValidateRDNS = 1;
        fixture.Settings.Timeout = 0;
      },
      R"(
    <- 454 Unable to verify DNS PTR record for 127.0.0.1.
    wait 100000000
    C: NOOP
    <- 503 Bad sequence of commands.)");
}

TEST(Sessions, AreFoundByTheirKeysUntilTheyEnd) {
  SessionFixture fixture;
  EXPECT_EQ(fixture.Play("S: 220 server ready\n<- 220 server ready"), "");
  ASSERT_EQ(fixture.Sessions().Count(), 1U);
  const std::string key = fixture.Sessions().At(0).Key();
  EXPECT_NE(fixture.Sessions().Find(key), nullptr);
  EXPECT_EQ(key[0], ' ');
  EXPECT_EQ(fixture.Play("C closes\nclosed S"), "");
  EXPECT_EQ(fixture.Sessions().Find(key), nullptr);
  EXPECT_EQ(fixture.Sessions().Count(), 0U);
}

}  // namespace
}  // namespace trabex
