// Sessions whose clients come by way of a load balancer, which says whose connection it is.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "session/session_fixture.h"
#include "support/openings.h"
#include "support/told_by_system.h"

namespace trabex {
namespace {

constexpr IPAddress kClient = IPAddress::IPv4(0xC0000207);  // 192.0.2.7

IPRangeList Only(const IPAddress& address) {
  return IPRangeList({{address, address}});
}

void TrustBalancer(SessionFixture& fixture) {
  fixture.Settings.ProxyProtocolFrom = Only(kIPv4Loopback);
}

bool WasLogged(const SessionFixture& fixture, std::string_view text) {
  const auto& lines = fixture.LogLines();
  return std::any_of(lines.begin(), lines.end(),
                     [text](const std::string& line) { return line.find(text) != std::string::npos; });
}

TEST(Balancer, HeaderSaysWhoseConnectionItIs) {
  const auto configure = [](SessionFixture& fixture) {
    TrustBalancer(fixture);
    fixture.Names.SetName(kClient, "mail.client.test");
  };
  PlayBothWays(configure, R"(
    C+ PROXY TCP4 192.0.2.7 203.0.113.5 51234 25\r\n
    S: 220 server ready
    <- 220 server ready
    log R: {*} [      127.0.0.1] Connection Request.
    log R: {*} [      192.0.2.7] PROXY header: 192.0.2.7:51234 to 203.0.113.5:25.
)" + Ehlo() + Mail("a@sender.test") +
                              Rcpt("b@local.test") + R"(
    C: DATA
    -> DATA
    S: 354 go
    <- 354 go
    C: .
    -> Received: from client.test (mail.client.test [192.0.2.7]) by proxy.test
    C closes
    log R: {*} [      192.0.2.7] Disconnected. Bytes received/sent: 78/*)");
}

TEST(Balancer, HeaderMayBeBinaryAndTheClientsBytesFollowIt) {
  PlayBothWays(TrustBalancer,
               R"(
    C+ \r\n\r\n\0\r\nQUIT\n!\x11\0\x0C\xC0\0\x02\x07\xCB\0q\x05\xC8"\0\x19EHLO client.test\r\n
    S: 220 server ready
    <- 220 server ready
    -> EHLO client.test
    log R: {*} [      192.0.2.7] PROXY header: 192.0.2.7:51234 to 203.0.113.5:25.)");
}

TEST(Balancer, ListsAreAskedAboutTheClientAndNotAboutTheBalancer) {
  const auto refuse = [](SessionFixture& fixture) {
    TrustBalancer(fixture);
    fixture.Settings.IPBlackList = Only(kClient);
  };
  PlayBothWays(refuse, R"(
    <- nothing
    C+ PROXY TCP4 192.0.2.7 203.0.113.5 51234 25\r\n
    <- 554 Connection from 192.0.2.7 not allowed.
    closed C)");
  const auto admit = [](SessionFixture& fixture) {
    TrustBalancer(fixture);
    fixture.Settings.IPBlackList = Only(kIPv4Loopback);
  };
  PlayBothWays(admit, R"(
    C+ PROXY TCP4 192.0.2.7 203.0.113.5 51234 25\r\n
    S: 220 server ready
    <- 220 server ready)");
}

TEST(Balancer, NothingIsSaidBeforeTheHeaderOrTheServerAsked) {
  for (const char* const end : {"shutdown", "C closes"}) {
    SessionFixture fixture;
    TrustBalancer(fixture);
    EXPECT_EQ(fixture.Play(std::string("<- nothing\nC+ PROXY TCP4 192\n<- nothing\n") + end), "");
    EXPECT_FALSE(fixture.Server().Accept().Open());
    EXPECT_EQ(fixture.Sessions().Count(), 0U);
    EXPECT_EQ(fixture.Names.Requests(), 0U);
    EXPECT_EQ(fixture.ClientPeer().Received(), "");
  }
}

TEST(Balancer, TooManyConnectionsAreRefusedAtOnce) {
  const auto configure = [](SessionFixture& fixture) {
    TrustBalancer(fixture);
    fixture.Settings.MaxConnections = 1;
  };
  PlayBothWays(configure, R"(
    <- nothing
    connect
    <- 421 proxy.test is too busy. Try later.
    closed C)");
}

TEST(Balancer, ABadHeaderEndsTheConnectionAtItsFirstWrongByte) {
  for (const char* const bytes :
       {"E", "PROXX", "PROXY TCP4 192.0.2.256", R"(PROXY TCP4 192.0.2.7 203.0.113.5 51234 25\n)",
        R"(\r\n\r\n\0\r\nQUIT\n\x11)"}) {
    PlayBothWays(TrustBalancer, std::string("C+ ") + bytes + R"(
    closed C
    log R: {*} [      127.0.0.1] Invalid PROXY header. Closing connection.)");
  }
}

TEST(Balancer, AHeaderHasItsTime) {
  const auto configure = [](SessionFixture& fixture) {
    TrustBalancer(fixture);
    fixture.Settings.Timeout = 0;
    fixture.Settings.ProxyProtocolTimeout = 7;
  };
  PlayBothWays(configure, R"(
    C+ PROXY TCP4
    wait 6900
    <- nothing
    wait 700
    closed C
    log R: {*} [      127.0.0.1] PROXY header time-out. Closing connection.)");
  // Its time is no part of the client's.
  PlayBothWays(configure, R"(
    wait 6900
    C+ PROXY TCP4 192.0.2.7 203.0.113.5 51234 25\r\n
    S accepts
    wait 100000
    S: 220 server ready
    <- 220 server ready)");
}

TEST(Balancer, AConnectionThatOnlyLooksLeavesNoError) {
  for (const bool resets : {false, true}) {
    SessionFixture fixture;
    TrustBalancer(fixture);
    ASSERT_EQ(fixture.Play("<- nothing"), "");
    if (resets) {
      fixture.ClientPeer().Reset();
    } else {
      fixture.ClientPeer().Close();
    }
    EXPECT_TRUE(fixture.Until([&] { return fixture.Sessions().Count() == 0; }));
    EXPECT_FALSE(WasLogged(fixture, "Error"));
    EXPECT_FALSE(WasLogged(fixture, "PROXY header"));
  }
}

// Its own header names nobody; then it hangs up, whatever we have said. A client that has spoken is one.
TEST(Balancer, AConnectionThatOnlyShowsItsHeaderLeavesNoError) {
  const struct {
    const char* what;
    const char* sent;
    bool is_client;
  } rows[] = {
      {"version 1", R"(PROXY UNKNOWN\r\n)", false},
      {"version 2", R"(\r\n\r\n\0\r\nQUIT\n \0\0\0)", false},
      {"with a command", R"(PROXY UNKNOWN\r\nNOOP\r\n)", true},
      {"of a client", R"(PROXY TCP4 192.0.2.7 203.0.113.5 51234 25\r\n)", true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    SessionFixture fixture;
    TrustBalancer(fixture);
    ASSERT_EQ(
        fixture.Play(std::string("C+ ") + row.sent + "\nS: 220 server ready\n<- 220 server ready\nC resets"),
        "");
    EXPECT_TRUE(fixture.Until([&] { return fixture.Sessions().Count() == 0; }));
    EXPECT_EQ(WasLogged(fixture, "Error 10054"), row.is_client && ResetsAreTold());
  }
}

TEST(Balancer, AHeaderThatBreaksOffIsABadOne) {
  PlayBothWays(TrustBalancer, R"(
    C+ PROXY TCP4 192.0.2.7
    C closes
    log R: {*} [      127.0.0.1] Invalid PROXY header. Closing connection.)");
}

// Otherwise what the balancer cannot describe could relay.
TEST(Balancer, AConnectionOfNobodyIsNeverLocal) {
  for (const char* const header : {R"(PROXY UNKNOWN\r\n)", R"(\r\n\r\n\0\r\nQUIT\n \0\0\0)"}) {
    PlayBothWays(TrustBalancer, std::string("C+ ") + header + R"(
    S: 220 server ready
    <- 220 server ready
    log R: {*} [      127.0.0.1] PROXY header: local.
)" + Ehlo() + Mail("a@local.test") + R"(
    C: RCPT TO:<b@elsewhere.test>
    <- 550 *)");
  }
  // The same client without a balancer.
  PlayBothWays({}, Greeting() + Ehlo() + Mail("a@local.test") + R"(
    C: RCPT TO:<b@elsewhere.test>
    -> RCPT TO:<b@elsewhere.test>)");
}

TEST(Balancer, AnybodyElsesHeaderIsACommandThatNobodyKnows) {
  const auto configure = [](SessionFixture& fixture) {
    fixture.Settings.ProxyProtocolFrom = Only(IPAddress::IPv4(0x7F000009));
  };
  PlayBothWays(configure, R"(
    C+ PROXY TCP4 192.0.2.7 203.0.113.5 51234 25\r\n
    S: 220 server ready
    <- 220 server ready
    <- 503 Bad sequence of commands.
    -> nothing
    log R: {*} [      127.0.0.1] < PROXY TCP4 192.0.2.7 203.0.113.5 51234 25¶)");
}

}  // namespace
}  // namespace trabex
