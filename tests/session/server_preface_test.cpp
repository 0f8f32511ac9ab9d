// What passes between us and the server before the client's dialogue begins.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "session/session_fixture.h"
#include "support/openings.h"

namespace trabex {
namespace {

using Configure = std::function<void(SessionFixture&)>;

constexpr IPAddress kClient = IPAddress::IPv4(0xC0000207);  // 192.0.2.7

Configure SendClientIP(std::int32_t how) {
  return [how](SessionFixture& fixture) { fixture.Settings.SendClientIP = how; };
}

Configure ServerTls(std::int32_t mode) {
  return [mode](SessionFixture& fixture) { fixture.Settings.TLS.Server = mode; };
}

// The client comes by way of a balancer.
Configure Balanced(const Configure& further) {
  return [further](SessionFixture& fixture) {
    fixture.Settings.ProxyProtocolFrom = IPRangeList({{kIPv4Loopback, kIPv4Loopback}});
    further(fixture);
  };
}

constexpr const char* kHeader = R"(
    C+ PROXY TCP4 192.0.2.7 203.0.113.5 51234 25\r\n
)";

std::string Then(std::string_view first, std::string_view rest) {
  return std::string(first).append(rest);
}

// The client gets the proxy's word, and nothing else.
constexpr const char* kRefused = R"(
    <- 421 *
    closed both)";

TEST(ServerPrefaceSession, HeaderOfVersion1ComesFirstAndIsProved) {
  PlayBothWays(SendClientIP(1), R"(
    -> PROXY TCP* 127.0.0.1 127.0.0.1 * *
    -> nothing
    C: EHLO client.test
    S: 220 server ready
    <- nothing
    -> EHLO proxy.test
    S: 250-server.test
    S: 250 SIZE 1000
    <- 220 server ready
    -> EHLO client.test
    S: 250 client
    <- 250 client
    log S: {*} [      127.0.0.1] > PROXY TCP*
    log S: {*} [      127.0.0.1] > EHLO proxy.test¶)");
}

TEST(ServerPrefaceSession, HeaderTellsWhatTheBalancerHasTold) {
  PlayBothWays(Balanced(SendClientIP(1)), Then(kHeader, R"(
    -> PROXY TCP4 192.0.2.7 203.0.113.5 51234 25
)" + Asked() + R"(
    <- 220 server ready)"));
  PlayBothWays(Balanced(SendClientIP(2)), Then(kHeader, R"(
    *> \r\n\r\n\0\r\nQUIT\n!\x11\0\x0C\xC0\0\x02\x07\xCB\0q\x05\xC8"\0\x19
    -> nothing
    S: 220 server ready
    <- 220 server ready
    -> nothing
    log S: {*} [      127.0.0.1] > PROXY v2 TCP4 192.0.2.7 203.0.113.5 51234 25)"));
}

TEST(ServerPrefaceSession, HeaderOfABalancersOwnConnection) {
  PlayBothWays(Balanced(SendClientIP(1)), R"(
    C+ PROXY UNKNOWN\r\n
    -> PROXY TCP* 127.0.0.1 127.0.0.1 * *)");
  PlayBothWays(Balanced(SendClientIP(2)), R"(
    C+ PROXY UNKNOWN\r\n
    *> \r\n\r\n\0\r\nQUIT\n \0\0\0
    S: 220 server ready
    <- 220 server ready
    log S: {*} [      127.0.0.1] > PROXY v2 LOCAL)");
}

TEST(ServerPrefaceSession, AServerThatTookTheHeaderForACommandEndsIt) {
  PlayBothWays(SendClientIP(1), Then(R"(
    -> PROXY *
    S: 220 server ready
    -> EHLO proxy.test
    S: 500 unknown command)",
                                     kRefused));
  PlayBothWays(SendClientIP(1), Then(R"(
    -> PROXY *
    S: 220 server ready
    -> EHLO proxy.test
    S: 500 unknown command
    <- 421 *
    log S: {*} [      127.0.0.1] No session with this server: EHLO refused. Closing connection.)",
                                     ""));
}

TEST(ServerPrefaceSession, XclientTellsTheServerWhoTheClientIs) {
  const auto with_name = Balanced([](SessionFixture& fixture) {
    fixture.Settings.SendClientIP = 3;
    fixture.Names.SetName(kClient, "mail.client.test");
    fixture.Names.SetAddresses("mail.client.test", {kClient});
  });
  PlayBothWays(with_name,
               Then(kHeader, Asked({"XCLIENT NAME ADDR PROTO PORT REVERSE_NAME DESTADDR DESTPORT"}) + R"(
    -> XCLIENT NAME=mail.client.test REVERSE_NAME=mail.client.test PORT=51234 DESTADDR=203.0.113.5 DESTPORT=25 ADDR=192.0.2.7
    <- nothing
    S: 220 welcome
    <- 220 welcome
    C: EHLO client.test
    -> EHLO client.test
    log S: {*] > XCLIENT NAME=mail.client.test *)"));
}

TEST(ServerPrefaceSession, XclientNamesAreThoseThatLeadBack) {
  struct Row {
    const char* what;
    std::function<void(FakeNameLookup&)> set;
    const char* names;
  };
  const Row rows[] = {
      {"no name", [](FakeNameLookup&) {}, "NAME=[UNAVAILABLE] REVERSE_NAME=[UNAVAILABLE]"},
      {"silence", [](FakeNameLookup& names) { names.SetNameError(kClient, 11002); },
       "NAME=[TEMPUNAVAIL] REVERSE_NAME=[TEMPUNAVAIL]"},
      {"a name elsewhere",
       [](FakeNameLookup& names) {
         names.SetName(kClient, "a.test");
         names.SetAddresses("a.test", {kIPv4Loopback});
       },
       "NAME=[UNAVAILABLE] REVERSE_NAME=a.test"},
      {"a name that nobody knows", [](FakeNameLookup& names) { names.SetName(kClient, "a.test"); },
       "NAME=[UNAVAILABLE] REVERSE_NAME=a.test"},
      {"a name and silence",
       [](FakeNameLookup& names) {
         names.SetName(kClient, "a.test");
         names.SetAddressError("a.test", 11002);
       },
       "NAME=[TEMPUNAVAIL] REVERSE_NAME=a.test"},
      {"no plain name", [](FakeNameLookup& names) { names.SetName(kClient, "a b.test"); },
       "NAME=[UNAVAILABLE] REVERSE_NAME=[UNAVAILABLE]"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const auto configure = Balanced([&](SessionFixture& fixture) {
      fixture.Settings.SendClientIP = 3;
      row.set(fixture.Names);
    });
    PlayBothWays(configure, std::string(kHeader) + Asked({"XCLIENT NAME ADDR REVERSE_NAME"}) + R"(
    -> XCLIENT )" + row.names + " ADDR=192.0.2.7");
  }
}

// By default a name that could not be confirmed is none, to the server as well.
TEST(ServerPrefaceSession, XclientTellsWhatDnsDidNotSay) {
  for (const std::int32_t setting : {dns_failure::kNoName, dns_failure::kUnknown}) {
    const auto configure = Balanced([&](SessionFixture& fixture) {
      fixture.Settings.SendClientIP = 3;
      fixture.Settings.ConfirmHostNames = true;
      fixture.Settings.Service.DnsFailure = setting;
      fixture.Names.SetName(kClient, "a.test");
      fixture.Names.SetAddressError("a.test", 11002);
    });
    const char* const name = setting == dns_failure::kUnknown ? "[TEMPUNAVAIL]" : "[UNAVAILABLE]";
    PlayBothWays(configure, std::string(kHeader) + Asked({"XCLIENT NAME ADDR"}) + "-> XCLIENT NAME=" + name +
                                " ADDR=192.0.2.7");
  }
}

TEST(ServerPrefaceSession, XclientWaitsForTheName) {
  SessionFixture fixture;
  SendClientIP(3)(fixture);
  fixture.Names.SetName(kIPv4Loopback, "a.test");
  fixture.Names.HoldAnswers();
  EXPECT_EQ(fixture.Play(Asked({"XCLIENT NAME ADDR"}) + R"(
    -> nothing
    answer
    -> nothing
    asks name a.test
    answer 127.0.0.1
    -> XCLIENT NAME=a.test ADDR=*127.0.0.1)"),
            "");
}

TEST(ServerPrefaceSession, WithoutXclientThereIsNoSession) {
  const struct {
    const char* offer;
    const char* rest;
    const char* reason;
  } rows[] = {
      {"250 SIZE", "", "XCLIENT not offered"},
      {"250 XCLIENT NAME", "", "XCLIENT not offered"},
      {"250 XCLIENT ADDR", "\n-> XCLIENT ADDR=*127.0.0.1\nS: 501 no", "XCLIENT refused"},
      {"250 XCLIENT ADDR", "\n-> XCLIENT ADDR=*127.0.0.1\nS: 503 no", "XCLIENT refused"},
      {"250 XCLIENT ADDR", "\n-> XCLIENT ADDR=*127.0.0.1\nS: 550 no", "XCLIENT refused"},
      {"250 XCLIENT ADDR", "\n-> XCLIENT ADDR=*127.0.0.1\nS: hello", "unexpected data"},
      {"250 XCLIENT ADDR", "\n-> XCLIENT ADDR=*127.0.0.1\nS closes", "connection closed"},
  };
  for (const auto& row : rows) {
    const std::string script = std::string(R"(
    S: 220 server ready
    -> EHLO proxy.test
    S: 250-server.test
    S: )") + row.offer + row.rest +
                               R"(
    <- 421 *
    closed C
    log S: {*] No session with this server: )" +
                               row.reason + ". Closing connection.";
    PlayBothWays(SendClientIP(3), script);
  }
}

// It would take what follows for ours, and us for one that it trusts.
TEST(ServerPrefaceSession, ARefusalGoesToTheClientAndTheServerGetsNothingMore) {
  PlayBothWays(SendClientIP(3), R"(
    C: EHLO client.test
    S: 554 go away
    <- 554 go away
    <- 503 Bad sequence of commands.
    -> nothing
    S: 421 that was all
    <- nothing
    C: QUIT
    <- 221 2.0.0 proxy.test closing connection.
    closed both)");
  PlayBothWays(SendClientIP(3), Asked({"XCLIENT ADDR"}) + R"(
    -> XCLIENT ADDR=*127.0.0.1
    S: 554 not you
    <- 554 not you
    C: NOOP
    <- 503 Bad sequence of commands.
    -> nothing)");
  // Such a client has its time as any other that was refused.
  PlayBothWays(
      [](SessionFixture& fixture) {
        fixture.Settings.SendClientIP = 3;
        fixture.Settings.Timeout = 10;
      },
      R"(
    S: 554 go away
    <- 554 go away
    wait 10100
    closed both
    log R: {*] Timeout exceeded. Closing connection.)");
}

// The session is over when the server hangs up, as any other.
TEST(ServerPrefaceSession, AServerThatRefusesAndClosesEndsTheSession) {
  const Configure rows[] = {SendClientIP(1), SendClientIP(3), ServerTls(server_tls::kStartTls)};
  for (const Configure& configure : rows) {
    for (const char* const end : {"S closes", "S+ 421 bye\\r\\n\nS closes", "S resets"}) {
      PlayBothWays(configure, std::string(R"(
    C: EHLO client.test
    S: 421 busy
    <- 421 busy
    <- 503 Bad sequence of commands.
    )") + end + "\nclosed C");
    }
  }
  PlayBothWays(SendClientIP(3), Asked({"XCLIENT ADDR"}) + R"(
    -> XCLIENT ADDR=*127.0.0.1
    S+ 421 not you\r\n
    S closes
    <- 421 not you
    closed C)");
}

TEST(ServerPrefaceSession, WhereTlsIsNotRequiredTheSessionGoesOnWithout) {
  PlayBothWays(ServerTls(server_tls::kIfOffered), Asked() + R"(
    <- 220 server ready)");
  // A server that takes one EHLO in a session has taken ours.
  PlayBothWays(ServerTls(server_tls::kIfOffered), Asked({"8BITMIME"}) + R"(
    <- 220 server ready
    C: EHLO client.test
    -> EHLO client.test
    S: 503 already identified
    <- 250-server
    <- 250 8BITMIME
    C: MAIL FROM:<a@b.test>
    -> MAIL FROM:<a@b.test>)");
  PlayBothWays(ServerTls(server_tls::kIfOffered), Asked({"STARTTLS"}) + R"(
    -> STARTTLS
    S: 454 not now
    <- 220 server ready)");
  PlayBothWays(ServerTls(server_tls::kIfOffered), R"(
    S: 554 go away
    <- 554 go away
    C: QUIT
    -> QUIT)");
}

TEST(ServerPrefaceSession, WhereTlsIsRequiredThereIsNoSessionWithout) {
  PlayBothWays(ServerTls(server_tls::kStartTls), Asked() + R"(
    <- 421 *
    closed both
    log S: {*] No session with this server: STARTTLS not offered. Closing connection.)");
  PlayBothWays(ServerTls(server_tls::kStartTls), Asked({"STARTTLS"}) + R"(
    -> STARTTLS
    S: 454 not now
    <- 421 *
    closed both
    log S: {*] No session with this server: STARTTLS refused. Closing connection.)");
}

TEST(ServerPrefaceSession, RepliesInjectedBehindStarttlsReachNobody) {
  for (const std::int32_t mode : {server_tls::kIfOffered, server_tls::kStartTls}) {
    SessionFixture fixture;
    ServerTls(mode)(fixture);
    EXPECT_EQ(fixture.Play(Asked({"STARTTLS"}) + R"(
    -> STARTTLS
    S+ 220 go\r\n250 injected\r\n
    <- 421 *
    closed both
    log S: {*] No session with this server: data behind STARTTLS. Closing connection.)"),
              "");
  }
}

TEST(ServerPrefaceSession, ItHasItsTime) {
  const char* const begins[] = {"", "S: 220 server ready\n-> EHLO proxy.test\nS+ 250-ser"};
  for (const char* const begin : begins) {
    const std::string script = std::string("S accepts\n") + begin + R"(
    wait 299000
    <- nothing
    wait 1600
    <- 421 *
    closed both
    log S: {*] No session with this server: time-out. Closing connection.)";
    PlayBothWays(SendClientIP(3), script);
  }
}

TEST(ServerPrefaceSession, AServerThatClosesIsNone) {
  for (const char* const said : {"", "S: 220 server ready\n-> EHLO proxy.test\n", "S+ 554 no\n"}) {
    PlayBothWays(ServerTls(server_tls::kIfOffered), std::string("S accepts\n") + said + R"(
    S closes
    <- 421 *
    closed C
    log S: {*] No session with this server: connection closed. Closing connection.)");
  }
}

TEST(ServerPrefaceSession, AClientThatClosesEndsIt) {
  PlayBothWays(SendClientIP(3), R"(
    S: 220 server ready
    -> EHLO proxy.test
    C closes
    closed S)");
}

TEST(ServerPrefaceSession, ALongReplyIsNone) {
  SessionFixture fixture;
  SendClientIP(3)(fixture);
  EXPECT_EQ(fixture.Play(R"(
    S+ {5000*220-0123456789\r\n}
    <- 421 *
    closed C)"),
            "");
}

}  // namespace
}  // namespace trabex
