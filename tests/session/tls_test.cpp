// TLS with the client over loopback: by STARTTLS, and on the port where it is spoken from the first byte on.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <string_view>

#include "base/text.h"
#include "session/dialogues.h"
#include "session/session_fixture.h"

namespace trabex {
namespace {

std::string MessageUnderTls() {
  return "\n" + Ehlo({"AUTH PLAIN"}) + R"(
    C: AUTH PLAIN AHgAeQ==
    -> AUTH PLAIN AHgAeQ==
    S: 235 welcome
    <- 235 welcome
)" + MailAndRcpt() +
         R"(
    C: DATA
    -> DATA
    S: 354 go on
    wait 200
    -> Received: from client.test (Unknown [127.0.0.1]) by proxy.test
    ->       with ESMTPSA tls TLS_*; Sun, 15 Nov 2026 16:54:24 -0000
    <- 354 go on
    C: a line
    C: .
    -> a line
    -> .
    S: 250 taken
    <- 250 taken
    C: QUIT
    -> QUIT
    S: 221 bye
    <- 221 bye
    S closes
    closed C
)";
}

std::size_t Logged(SessionFixture& fixture, std::string_view text) {
  const auto& lines = fixture.LogLines();
  return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
    return line.find(text) != std::string::npos;
  }));
}

void OfferTls(SessionFixture& fixture) {
  fixture.OfferTls();
}

void UseTlsPort(SessionFixture& fixture) {
  fixture.OfferTls();
  fixture.OnTlsPort = true;
}

TEST(StartTls, AMessagePassesUnderIt) {
  const std::string text = AskedForTls() + "C starts TLS" + MessageUnderTls();
  PlayBothWays(OfferTls, text);
  for (const Delivery delivery : {Delivery::kWhole, Delivery::kByteByByte}) {
    SessionFixture fixture;
    fixture.OfferTls();
    EXPECT_EQ(fixture.PlayOnDialogue(delivery, text), "");
  }
}

TEST(StartTls, IsLoggedWithItsReply) {
  SessionFixture fixture;
  fixture.Settings.LogLevelRemote = 15;
  fixture.OfferTls();
  EXPECT_EQ(fixture.Play(AskedForTls() + "C starts TLS\n" + R"(
    log R: * < STARTTLS*
    log R: * > 220 2.0.0 Ready to start TLS.
    log R: * TLS: TLSv1.3, TLS_AES_256_GCM_SHA384.)"),
            "");
}

// OpenSMTPD refuses a second EHLO; the client has to send one after STARTTLS.
TEST(StartTls, AServerThatTakesOneEhloInASessionIsUnderstood) {
  for (const std::string_view again : {"250-server\nS: 250 8BITMIME", "503 already identified"}) {
    SessionFixture fixture;
    fixture.OfferTls();
    EXPECT_EQ(fixture.Play(R"(
      S: 220 server ready
      <- 220 server ready
      C: EHLO client.test
      -> EHLO client.test
      S: 250-server
      S: 250 8BITMIME
      <- 250-server
      <- 250-8BITMIME
      <- 250 STARTTLS
      C: EHLO client.test
      -> EHLO client.test
      S: 503 already identified
      <- 503 already identified
      C: STARTTLS
      <- 220 2.0.0 Ready to start TLS.
      C starts TLS
      C: MAIL FROM:<a@b.test>
      <- 503 Bad sequence of commands.
      C: EHLO client.test
      -> EHLO client.test
      S: )" + std::string(again) +
                           R"(
      <- 250-server
      <- 250 8BITMIME
)" + Mail() + R"(
      C: EHLO client.test
      -> EHLO client.test
      S: 503 already identified
      <- 503 already identified)"),
              "");
  }
}

// The client's end on the wire may be cut anywhere.
TEST(StartTls, TheWireMayCutItAnywhere) {
  for (const std::size_t piece : {1U, 7U, 100U}) {
    SessionFixture fixture;
    fixture.OfferTls();
    fixture.Start();
    fixture.ClientPeer().CutWire(piece);
    EXPECT_EQ(fixture.Play(AskedForTls() + "C starts TLS" + MessageUnderTls()), "") << piece;
  }
}

TEST(StartTls, WhatWasSentAheadUnderTlsIsTakenInOrder) {
  SessionFixture fixture;
  fixture.OfferTls();
  EXPECT_EQ(fixture.Play(AskedForTls() + R"(C starts TLS
    C+ EHLO client.test\r\nNOOP\r\nMAIL FROM:<a@b.test>\r\nQUIT\r\n
    -> EHLO client.test
    -> nothing
    S: 250 server
    -> NOOP
    S: 250 one
    -> MAIL FROM:<a@b.test>
    S: 250 two
    -> QUIT
    S: 221 bye
    <- 250 server
    <- 250 one
    <- 250 two
    <- 221 bye
    S closes
    closed C)"),
            "");
}

// --- what somebody in between might slip in

TEST(StartTls, ACommandBehindItInOnePacketEndsTheSession) {
  SessionFixture fixture;
  fixture.OfferTls();
  EXPECT_EQ(fixture.Play(R"(
    S: 220 server ready
    <- 220 server ready
    C: EHLO client.test
    -> EHLO client.test
    S: 250 server
    <- 250-server
    <- 250 STARTTLS
    C+ STARTTLS\r\nRSET\r\n
    <- 554 5.5.0 Data behind STARTTLS.
    -> nothing
    closed both)"),
            "");
}

TEST(StartTls, ACommandInALaterPacketMeetsTheHandshake) {
  SessionFixture fixture;
  fixture.OfferTls();
  EXPECT_EQ(fixture.Play(AskedForTls() + R"(
    C: RSET
    -> nothing
    closed S
    log R: * Error 40030. TLS failed: *)"),
            "");
  EXPECT_EQ(Logged(fixture, "TLS: "), 0U);
}

// It comes with the handshake's first bytes, in whatever place.
TEST(StartTls, ClearTextInTheHandshakeReachesNobody) {
  for (const bool before : {true, false}) {
    SessionFixture fixture;
    fixture.OfferTls();
    ASSERT_EQ(fixture.Play(AskedForTls()), "");
    TestPeer& client = fixture.ClientPeer();
    if (before) client.SendInClear("RSET\r\n");
    client.StartTls({});
    if (!before) client.SendInClear("RSET\r\n");
    EXPECT_TRUE(fixture.Until([&] { return fixture.Sessions().Count() == 0; }));
    EXPECT_EQ(fixture.Play("-> nothing"), "");
    EXPECT_EQ(Logged(fixture, "TLS failed"), 1U);
  }
}

TEST(Tls, NothingBehindItsEndIsRead) {
  for (const char* behind : {"RSET\r\n", "NOOP\r\nRSET\r\n", "\x16\x03\x01\x02"}) {
    SessionFixture fixture;
    fixture.OfferTls();
    ASSERT_EQ(fixture.Play(AskedForTls() + R"(C starts TLS
      C: EHLO client.test
      -> EHLO client.test
      S: 250 server
      <- 250 server)"),
              "");
    TestPeer& client = fixture.ClientPeer();
    client.SayGoodbye();
    client.SendInClear(behind);
    EXPECT_EQ(fixture.Play("closed S\n-> nothing"), "");
  }
}

TEST(Tls, ItsEndInAChunkIsTheEndOfTheMessage) {
  SessionFixture fixture;
  fixture.Settings.AddReceived = false;
  fixture.OfferTls();
  ASSERT_EQ(fixture.Play(AskedForTls() + R"(C starts TLS
)" + Ehlo({"CHUNKING"}) + MailAndRcpt() +
                         R"(
    C+ BDAT 10 LAST\r\n12345
    -> BDAT 10 LAST
    *> 12345)"),
            "");
  TestPeer& client = fixture.ClientPeer();
  client.SayGoodbye();
  client.SendInClear("67890QUIT\r\n");
  EXPECT_EQ(fixture.Play("closed S"), "");
}

// --- the handshake

TEST(Handshake, HasItsTime) {
  for (const bool on_port : {false, true}) {
    SessionFixture fixture;
    fixture.Settings.Timeout = 0;
    fixture.Settings.TLS.HandshakeTimeout = 7;
    fixture.OfferTls();
    fixture.OnTlsPort = on_port;
    fixture.HandshakeAtOnce = false;
    EXPECT_EQ(fixture.Play(std::string(on_port ? "" : AskedForTls()) + R"(
      wait 7000
      <- nothing
      wait 501
      closed C
      log R: * TLS handshake time-out. Closing connection.)"),
              "");
    EXPECT_EQ(fixture.Sessions().Count(), 0U);
  }
}

TEST(Handshake, IsBrokenOffByTheClientsEnd) {
  for (const bool on_port : {false, true}) {
    SessionFixture fixture;
    fixture.OfferTls();
    fixture.OnTlsPort = on_port;
    fixture.HandshakeAtOnce = false;
    EXPECT_EQ(fixture.Play(std::string(on_port ? "" : AskedForTls()) + R"(
      C closes
      log R: * TLS handshake broken off.)"),
              "");
    EXPECT_EQ(fixture.Sessions().Count(), 0U);
  }
}

TEST(Handshake, OneTooManyEndsTheOldest) {
  SessionFixture fixture;
  fixture.Settings.TLS.MaxHandshakes = 1;
  UseTlsPort(fixture);
  fixture.HandshakeAtOnce = false;
  EXPECT_EQ(fixture.Play(R"(
    wait 1
    connect
    wait 1
    log R: * Too many TLS handshakes. Closing connection.)"),
            "");
  EXPECT_EQ(fixture.Sessions().Count(), 1U);
  EXPECT_TRUE(fixture.MakeHandshake());
}

TEST(Handshake, AStopOfTheServiceEndsIt) {
  for (const bool on_port : {false, true}) {
    SessionFixture fixture;
    fixture.OfferTls();
    fixture.OnTlsPort = on_port;
    fixture.HandshakeAtOnce = false;
    EXPECT_EQ(fixture.Play(std::string(on_port ? "" : AskedForTls()) + R"(
      wait 1
      shutdown
      closed C
      log R: * Refused without TLS: 421 4.3.2 proxy.test is shutting down.)"),
              "");
  }
}

TEST(Handshake, WhatTheServerSaysMeanwhileComesUnderTls) {
  SessionFixture fixture;
  fixture.OfferTls();
  EXPECT_EQ(fixture.Play(AskedForTls() + R"(
    S: 421 time is up
    S closes
    <- nothing
    wait 500
    <- nothing
    C starts TLS
    <- 421 time is up
    closed C)"),
            "");
}

TEST(Handshake, NothingIsKeptForItAfterwards) {
  SessionFixture fixture;
  fixture.OfferTls();
  EXPECT_EQ(fixture.Play(AskedForTls() + R"(C starts TLS
    wait 100000
    C: EHLO client.test
    -> EHLO client.test)"),
            "");
}

// --- the port of TLS

TEST(TlsPort, AMessagePassesUnderIt) {
  PlayBothWays(UseTlsPort, std::string("S: 220 ready\n<- 220 ready\n") + MessageUnderTls());
}

TEST(TlsPort, TheServerIsNotConnectedBeforeTheHandshake) {
  SessionFixture fixture;
  UseTlsPort(fixture);
  fixture.HandshakeAtOnce = false;
  fixture.Start();
  fixture.Settle();
  EXPECT_FALSE(fixture.Server().Accept().Open());
  EXPECT_TRUE(fixture.MakeHandshake());
  EXPECT_EQ(fixture.Play("S accepts\nS: 220 ready\n<- 220 ready"), "");
}

TEST(TlsPort, ARefusalByAddressSaysNothing) {
  SessionFixture fixture;
  UseTlsPort(fixture);
  fixture.HandshakeAtOnce = false;
  fixture.Settings.IPBlackList = IPRangeList({{kIPv4Loopback, kIPv4Loopback}});
  EXPECT_EQ(fixture.Play(R"(
    closed C
    log R: * Refused without TLS: 554 Connection from 127.0.0.1 not allowed.)"),
            "");
  EXPECT_EQ(Logged(fixture, "> 554"), 0U);
}

TEST(TlsPort, ARefusalForTheNumberOfSessionsSaysNothing) {
  SessionFixture fixture;
  UseTlsPort(fixture);
  fixture.HandshakeAtOnce = false;
  fixture.Settings.MaxConnections = 1;
  EXPECT_EQ(fixture.Play(R"(
    connect
    closed C
    log R: * Refused without TLS: 421 proxy.test is too busy. Try later.)"),
            "");
}

TEST(TlsPort, ARefusalByNameIsSaidUnderTls) {
  SessionFixture fixture;
  UseTlsPort(fixture);
  fixture.Settings.ValidateRDNS = 3;
  EXPECT_EQ(fixture.Play(R"(
    answer
    <- 454 Unable to verify DNS PTR record for 127.0.0.1.
    C: EHLO client.test
    <- 503 Bad sequence of commands.
    C: QUIT
    <- 221 2.0.0 proxy.test closing connection.
    closed C)"),
            "");
}

TEST(TlsPort, WithoutACertificateItClosesAtOnce) {
  SessionFixture fixture;
  UseTlsPort(fixture);
  fixture.HandshakeAtOnce = false;
  fixture.Tls.for_clients = nullptr;
  EXPECT_EQ(fixture.Play("closed C\nlog R: * No certificate. Closing connection."), "");
  EXPECT_EQ(fixture.Sessions().Count(), 0U);
}

TEST(TlsPort, ClearTextIsNoHandshake) {
  SessionFixture fixture;
  UseTlsPort(fixture);
  fixture.HandshakeAtOnce = false;
  fixture.Start();
  EXPECT_EQ(fixture.Play("C: EHLO client.test\nlog R: * Error 40030. TLS failed: *"), "");
  EXPECT_FALSE(fixture.Server().Accept().Open());
}

TEST(StartTls, WithoutACertificateAnyMoreIsNotAvailable) {
  SessionFixture fixture;
  fixture.OfferTls();
  ASSERT_EQ(fixture.Play(R"(
    S: 220 server ready
    <- 220 server ready
    C: EHLO client.test
    -> EHLO client.test
    S: 250 server
    <- 250-server
    <- 250 STARTTLS)"),
            "");
  fixture.Tls.for_clients = nullptr;
  EXPECT_EQ(fixture.Play(R"(
    C: STARTTLS
    <- 454 4.7.0 TLS not available due to temporary reason.
    C: EHLO client.test
    -> EHLO client.test
    S: 250 server
    <- 250 server)"),
            "");
}

// A broken file is no wish to do without TLS.
TEST(Tls, PoliciesHoldWithoutACertificateThatCouldBeLoaded) {
  const auto configure = [](SessionFixture& fixture) {
    fixture.Settings.TLS.Certificate = {{"broken.pem", "broken.pem"}};
  };
  PlayBothWays(configure, Greeting() + R"(
    C: EHLO client.test
    -> EHLO client.test
    S: 250-server
    S: 250-AUTH PLAIN
    S: 250-AUTH=PLAIN
    S: 250 REQUIRETLS
    <- 250 server
    C: STARTTLS
    <- 502 5.5.1 Command not implemented.
    C: AUTH PLAIN AHgAeQ==
    <- 538 5.7.11 *
    -> nothing)");
}

// What began goes on with the certificate that it began with.
TEST(StartTls, GoesOnWhenTheCertificateGoes) {
  SessionFixture fixture;
  fixture.OfferTls();
  ASSERT_EQ(fixture.Play(AskedForTls()), "");
  fixture.Tls.for_clients = nullptr;
  EXPECT_EQ(fixture.Play("C starts TLS\nC: NOOP\n-> NOOP\nS: 250 ok\n<- 250 ok"), "");
}

TEST(Tls, ASecondStartTlsIsNoCommand) {
  SessionFixture fixture;
  fixture.OfferTls();
  EXPECT_EQ(fixture.Play(AskedForTls() + R"(C starts TLS
    C: EHLO client.test
    -> EHLO client.test
    S: 250-server
    S: 250 STARTTLS
    <- 250 server
    C: STARTTLS
    <- 502 5.5.1 Command not implemented.
    -> nothing)"),
            "");
}

}  // namespace
}  // namespace trabex
