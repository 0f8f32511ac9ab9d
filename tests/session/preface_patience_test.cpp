// Servers that say nothing, or read nothing, before the client's dialogue has begun: each has its time, and what the client
// sends meanwhile waits with the client.
#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "session/session_fixture.h"
#include "support/heap.h"

namespace trabex {
namespace {

constexpr const char* kOffersAll = R"(
    S: 220 server ready
    -> EHLO proxy.test
    S: 250-server.test
    S: 250-STARTTLS
    S: 250 XCLIENT ADDR
)";

struct Silence {
  const char* when;
  std::int32_t send_client_ip;
  std::int32_t server_tls;
  std::string before;  // that it falls silent
};

const std::vector<Silence>& Silences() {
  static const std::vector<Silence> all = {
      {"header 1, no greeting", 1, 0, "-> PROXY TCP4 *\n"},
      {"header 1, EHLO", 1, 0, "-> PROXY TCP4 *\nS: 220 server ready\n-> EHLO proxy.test\n"},
      {"XCLIENT, no greeting", 3, 0, "S accepts\n"},
      {"XCLIENT", 3, 0, std::string(kOffersAll) + "-> XCLIENT ADDR=127.0.0.1\n"},
      {"XCLIENT, half a reply", 3, 0, std::string(kOffersAll) + "-> XCLIENT ADDR=127.0.0.1\nS+ 220-se\n"},
      {"STARTTLS", 0, server_tls::kIfOffered, std::string(kOffersAll) + "-> STARTTLS\n"},
      {"STARTTLS, half a reply", 0, server_tls::kStartTls, std::string(kOffersAll) + "-> STARTTLS\nS+ 220\n"},
      {"header 1 and STARTTLS", 1, server_tls::kStartTls,
       std::string("-> PROXY TCP4 *\n") + kOffersAll + "-> STARTTLS\n"},
  };
  return all;
}

void Configure(SessionFixture& fixture, const Silence& silence) {
  fixture.Settings.SendClientIP = silence.send_client_ip;
  fixture.Settings.TLS.Server = silence.server_tls;
  // It is the preface's time that counts.
  fixture.Settings.Timeout = 0;
}

TEST(PrefacePatience, AServerThatSaysNothingMoreHasFiveMinutes) {
  for (const Silence& silence : Silences()) {
    SCOPED_TRACE(silence.when);
    SessionFixture fixture;
    Configure(fixture, silence);
    EXPECT_EQ(fixture.Play(silence.before + R"(
      C: EHLO client.test
      wait 299000
      <- nothing
      -> nothing
      wait 1600
      <- 421 proxy.test is temporarily unavailable.
      log S: {*] No session with this server: time-out. Closing connection.
      closed S)"),
              "");
    EXPECT_TRUE(fixture.Until([&] { return fixture.Sessions().Count() == 0; }));
  }
}

// The client may send as much as it likes.
TEST(PrefacePatience, WhatTheClientSendsMeanwhileWaitsWithIt) {
  constexpr std::size_t kMost_bytes = std::size_t{64} << 20;
  const std::string line = "NOOP " + std::string(500, 'x') + "\r\n";
  for (const Silence& silence : Silences()) {
    SCOPED_TRACE(silence.when);
    SessionFixture fixture;
    Configure(fixture, silence);
    ASSERT_EQ(fixture.Play(silence.before), "");
    const std::size_t memory = HeapInUse();
    std::size_t sent = 0;
    for (int tries = 0; tries < 2 && sent < kMost_bytes;) {
      const std::size_t more = fixture.ClientPeer().Send(std::string_view(line).substr(sent % line.size()));
      sent += more;
      tries = more == 0 ? tries + 1 : 0;
      if (more == 0) fixture.Settle();
    }
    EXPECT_GT(sent, std::size_t{64} << 10);
    EXPECT_LT(sent, kMost_bytes);
    EXPECT_LT(HeapInUse(), memory + (std::size_t{256} << 10));
    EXPECT_EQ(fixture.Play("-> nothing\n<- nothing"), "");
    // That it has broken off is hidden behind what it has sent; the time for the preface ends it.
    fixture.ClientPeer().Reset();
    EXPECT_EQ(fixture.Play("wait 300600"), "");
    EXPECT_TRUE(fixture.Until([&] { return fixture.Sessions().Count() == 0; }));
  }
}

// Its window is shut from the beginning; the few bytes of the preface are the system's then.
TEST(PrefacePatience, AServerThatDoesNotReadHasItsTimeToo) {
  SessionFixture fixture;
  fixture.Settings.SendClientIP = 1;
  fixture.Settings.Timeout = 0;
  fixture.Start();
  ASSERT_TRUE(fixture.NeedServer());
  // Not read by the fixture now.
  TestPeer server = std::move(fixture.ServerPeer());
  server.HoldLittle();
  server.Send("220 server ready\r\n");
  EXPECT_EQ(fixture.Play("wait 299000\n<- nothing\nwait 1600\n<- 421 *\nclosed C"), "");
  EXPECT_TRUE(fixture.Until([&] { return fixture.Sessions().Count() == 0; }));
}

// --- names that are looked up and confirmed for the session itself already

// What a name does not lead back to counts for nobody as the client's, and the server hears no name at all.
TEST(PrefaceNames, WithConfirmedNamesXclientTellsThemOnly) {
  const IPAddress other = IPAddress::IPv4(0xC0000207);  // 192.0.2.7
  struct Row {
    const char* what;
    std::function<void(FakeNameLookup&)> set;
    const char* names;
  };
  const Row rows[] = {
      {"it leads back",
       [](FakeNameLookup& names) {
         names.SetName(kIPv4Loopback, "client.test");
         names.SetAddresses("client.test", {kIPv4Loopback});
       },
       "NAME=client.test REVERSE_NAME=client.test"},
      {"it leads elsewhere",
       [other](FakeNameLookup& names) {
         names.SetName(kIPv4Loopback, "client.test");
         names.SetAddresses("client.test", {other});
       },
       "NAME=[UNAVAILABLE] REVERSE_NAME=[UNAVAILABLE]"},
      {"it leads nowhere", [](FakeNameLookup& names) { names.SetName(kIPv4Loopback, "client.test"); },
       "NAME=[UNAVAILABLE] REVERSE_NAME=[UNAVAILABLE]"},
      {"no answer", [](FakeNameLookup& names) { names.SetNameError(kIPv4Loopback, 11002); },
       "NAME=[TEMPUNAVAIL] REVERSE_NAME=[TEMPUNAVAIL]"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    SessionFixture fixture;
    fixture.Settings.SendClientIP = 3;
    fixture.Settings.ConfirmHostNames = true;
    row.set(fixture.Names);
    EXPECT_EQ(fixture.Play(std::string(R"(
      S: 220 server ready
      -> EHLO proxy.test
      S: 250-server.test
      S: 250 XCLIENT NAME REVERSE_NAME ADDR
      -> XCLIENT )") + row.names +
                           R"( ADDR=127.0.0.1
      S: 220 welcome
      <- 220 welcome)"),
              "");
    EXPECT_EQ(fixture.Names.ConfirmedNameRequests(), 1U);
  }
}

}  // namespace
}  // namespace trabex
