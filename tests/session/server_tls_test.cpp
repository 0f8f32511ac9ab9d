// TLS towards the server: by STARTTLS, or before its greeting.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <utility>

#include "session/session_fixture.h"
#include "support/openings.h"
#include "support/test_certificates.h"
#include "support/tls_peer.h"
#include "tls/tls_context.h"

namespace trabex {
namespace {

// A session whose server speaks TLS.
class ServerTlsTest : public testing::Test {
 protected:
  ServerTlsTest() { UseContext({}); }

  void UseContext(const TlsClientOptions& options) {
    TlsLoadReport report;
    fixture.Tls.for_server = TlsContext::ForClient(options, report);
  }
  // Runs until `done`, and carries the bytes of TLS.
  bool Until(const std::function<bool()>& done) {
    return fixture.Until([&] {
      tls.Feed(std::exchange(fixture.ServerPeer().Received(), {}));
      const std::string output = tls.Output();
      if (!output.empty()) fixture.ServerPeer().Send(output);
      return done();
    });
  }
  void Play(std::string_view script) { EXPECT_EQ(fixture.Play(script), ""); }
  // The server and we have agreed on STARTTLS.
  void PlayStartTls() {
    Play(Asked({"STARTTLS"}) + R"(
    -> STARTTLS
    S: 220 go)");
  }
  void MakeHandshake() {
    EXPECT_TRUE(Until([&] { return tls.Established(); })) << tls.Error();
  }
  // The server gets this line next, under TLS.
  void ExpectServerGets(const std::string& line) {
    const std::string wanted = line + "\r\n";
    Until([&] { return tls.Text().size() >= wanted.size(); });
    EXPECT_EQ(tls.Text().substr(0, wanted.size()), wanted);
    tls.Text().erase(0, wanted.size());
  }
  void ExpectClientGets(const std::string& reply) {
    std::string& received = fixture.ClientPeer().Received();
    Until([&] { return received.size() >= reply.size(); });
    EXPECT_EQ(received.substr(0, reply.size()), reply);
    received.erase(0, reply.size());
  }
  void ClientSays(const std::string& line) { fixture.ClientPeer().Send(line + "\r\n"); }
  bool WasLogged(std::string_view text) const {
    const auto& lines = fixture.LogLines();
    return std::any_of(lines.begin(), lines.end(),
                       [text](const std::string& line) { return line.find(text) != std::string::npos; });
  }
  void ExpectRefusal() {
    ExpectClientGets("421 proxy.test is temporarily unavailable.\r\n");
    EXPECT_TRUE(fixture.Until([&] { return fixture.ClientPeer().AtEnd(); }));
    EXPECT_EQ(fixture.Sessions().Count(), 0U);
  }

  const TestCertificate certificate =
      MakeTestCertificate({.common_name = "mail.server.test", .dns_names = {"mail.server.test"}});
  SessionFixture fixture;
  TlsPeer tls{{.server = true, .certificate = certificate}};
};

TEST_F(ServerTlsTest, BeginsByStarttlsAndTheGreetingFollows) {
  fixture.Settings.TLS.Server = server_tls::kStartTls;
  PlayStartTls();
  MakeHandshake();
  ExpectClientGets("220 server ready\r\n");
  ClientSays("EHLO client.test");
  ExpectServerGets("EHLO client.test");
  // The client's TLS, where it has any, is another one than the server's.
  tls.Write("250-server.test\r\n250-AUTH SCRAM-SHA-1 SCRAM-SHA-1-PLUS PLAIN EXTERNAL\r\n250 REQUIRETLS\r\n");
  ExpectClientGets("250-server.test\r\n250 AUTH PLAIN\r\n");
  ClientSays("QUIT");
  ExpectServerGets("QUIT");
  tls.Write("221 bye\r\n");
  ExpectClientGets("221 bye\r\n");
  EXPECT_TRUE(WasLogged("TLS: TLSv1.3, TLS_"));
  EXPECT_TRUE(WasLogged("certificate not verified."));
}

TEST_F(ServerTlsTest, BeginsBeforeTheGreeting) {
  fixture.Settings.TLS.Server = server_tls::kImplicit;
  fixture.Start();
  ASSERT_TRUE(fixture.NeedServer());
  MakeHandshake();
  tls.Write("220 server ready\r\n");
  ExpectClientGets("220 server ready\r\n");
  ClientSays("EHLO client.test");
  ExpectServerGets("EHLO client.test");
}

TEST_F(ServerTlsTest, HeaderComesBeforeIt) {
  fixture.Settings.TLS.Server = server_tls::kImplicit;
  fixture.Settings.SendClientIP = send_client_ip::kProxyVersion1;
  Play("-> PROXY TCP4 127.0.0.1 127.0.0.1 * *");
  MakeHandshake();
  tls.Write("220 server ready\r\n");
  ExpectServerGets("EHLO proxy.test");
  tls.Write("250 server.test\r\n");
  ExpectClientGets("220 server ready\r\n");
}

TEST_F(ServerTlsTest, XclientIsSaidUnderIt) {
  fixture.Settings.TLS.Server = server_tls::kStartTls;
  fixture.Settings.SendClientIP = send_client_ip::kXCLIENT;
  PlayStartTls();
  MakeHandshake();
  ExpectServerGets("EHLO proxy.test");
  tls.Write("250-server.test\r\n250 XCLIENT ADDR\r\n");
  ExpectServerGets("XCLIENT ADDR=127.0.0.1");
  tls.Write("220 welcome\r\n");
  ExpectClientGets("220 welcome\r\n");
}

TEST_F(ServerTlsTest, TraceHeaderAndContentAreOneRecord) {
  fixture.Settings.TLS.Server = server_tls::kImplicit;
  fixture.Start();
  ASSERT_TRUE(fixture.NeedServer());
  MakeHandshake();
  tls.Write("220 server ready\r\n");
  ExpectClientGets("220 server ready\r\n");
  for (const char* command : {"HELO client.test", "MAIL FROM:<a@b.test>", "RCPT TO:<u@local.test>", "DATA"}) {
    ClientSays(command);
    ExpectServerGets(command);
    const std::string reply = std::string(command) == "DATA" ? "354 go on\r\n" : "250 ok\r\n";
    tls.Write(reply);
    ExpectClientGets(reply);
  }
  ClientSays("text");
  fixture.Settle();
  const std::string wire = fixture.ServerPeer().Received();
  ASSERT_GT(wire.size(), 5U);
  const auto byte = [&](std::size_t at) { return std::size_t{static_cast<unsigned char>(wire[at])}; };
  EXPECT_EQ(5 + (byte(3) << 8 | byte(4)), wire.size());
  Until([&] { return tls.Text().ends_with("text\r\n"); });
  EXPECT_TRUE(tls.Text().starts_with("Received: from client.test ")) << tls.Text();
}

// What the server, or somebody in its place, said in the clear counts no more.
TEST_F(ServerTlsTest, WhatItOfferedInTheClearIsForgotten) {
  fixture.Settings.TLS.Server = server_tls::kStartTls;
  PlayStartTls();
  MakeHandshake();
  ExpectClientGets("220 server ready\r\n");
  ClientSays("EHLO client.test");
  ExpectServerGets("EHLO client.test");
  tls.Write("503 already identified\r\n");
  ExpectClientGets("503 already identified\r\n");
}

// A failure is no way to plain text, not even where TLS is not required.
TEST_F(ServerTlsTest, AFailedHandshakeEndsTheSession) {
  fixture.Settings.TLS.Server = server_tls::kIfOffered;
  PlayStartTls();
  Play("<- nothing\nS: 250 injected");
  ExpectRefusal();
  EXPECT_TRUE(WasLogged("Error 40030. TLS failed: "));
  EXPECT_FALSE(WasLogged("injected"));
}

TEST_F(ServerTlsTest, AHandshakeHasItsTime) {
  fixture.Settings.TLS.Server = server_tls::kIfOffered;
  fixture.Settings.TLS.HandshakeTimeout = 20;
  PlayStartTls();
  Play("wait 19900\n<- nothing\nwait 700");
  ExpectRefusal();
  EXPECT_TRUE(WasLogged("No session with this server: time-out. Closing connection."));
}

TEST_F(ServerTlsTest, AServerThatClosesInItsHandshakeIsNone) {
  fixture.Settings.TLS.Server = server_tls::kImplicit;
  Play("S accepts\nS closes");
  ExpectRefusal();
}

TEST_F(ServerTlsTest, CertificateIsVerifiedWhereThatIsWanted) {
  UseContext({.verify = true, .server_name = "mail.server.test"});
  fixture.Settings.TLS.Server = server_tls::kImplicit;
  fixture.Start();
  ASSERT_TRUE(fixture.NeedServer());
  Until([&] { return fixture.ClientPeer().AtEnd(); });
  ExpectRefusal();
  EXPECT_TRUE(WasLogged("Error 40030. TLS failed: "));
}

TEST_F(ServerTlsTest, WithoutAContextThereIsNoSession) {
  fixture.Tls.for_server = nullptr;
  fixture.Settings.TLS.Server = server_tls::kImplicit;
  fixture.Start();
  ExpectRefusal();
  EXPECT_TRUE(WasLogged("No session with this server: TLS not available. Closing connection."));
}

}  // namespace
}  // namespace trabex
