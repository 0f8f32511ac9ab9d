// Peers under TLS that do not read: what waits for them is bounded, on the side of the client and on that of the server,
// and all of it comes when they read again.
#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include "session/session_fixture.h"
#include "support/heap.h"
#include "support/openings.h"
#include "support/test_certificates.h"
#include "tls/tls_context.h"

namespace trabex {
namespace {

// No system holds this much for a peer that does not read.
constexpr std::size_t kMost_bytes = std::size_t{64} << 20;
// More than a session may hold for a peer: its rooms, and what the library has for each side.
constexpr std::size_t kMostMemory_bytes = std::size_t{512} << 10;

// A session with TLS on the sides that are wanted, whose client has been greeted and has said EHLO.
class SecuredSession {
 public:
  SecuredSession(Security client_security, bool secure_server) {
    static const TestCertificate certificate = MakeTestCertificate({});
    fixture.ClientSecurity = client_security;
    fixture.Settings.AddReceived = false;
    fixture.Settings.LogLevelRemote = fixture.Settings.LogLevelServer = 0;
    if (secure_server) {
      TlsLoadReport report;
      fixture.Tls.for_server = TlsContext::ForClient({}, report);
      fixture.Settings.TLS.Server = server_tls::kImplicit;
    }
    fixture.Start();
    EXPECT_TRUE(fixture.NeedServer());
    if (secure_server) {
      fixture.ServerPeer().StartTls({.server = true, .certificate = certificate});
      EXPECT_TRUE(fixture.Until([&] { return fixture.ServerPeer().Secured(); }));
    }
    EXPECT_EQ(fixture.Play(std::string(client_security == Security::kStartTls ? "" : R"(
      S: 220 server ready
      <- 220 server ready)") +
                           R"(
      C: EHLO client.test
      -> EHLO client.test
      S: 250-server
      S: 250 8BITMIME
      <- 250-server
      <- 250 8BITMIME)"),
              "");
  }

  // Sends `text` again and again until nothing moves any more; returns how many bytes it was.
  std::size_t SendUntilHeld(TestPeer& peer, const std::string& text) {
    std::size_t sent = 0;
    for (int standstills = 0; standstills < 3 && sent < kMost_bytes;) {
      const std::size_t unsent = peer.Unsent();
      // In the clear the system may take a part.
      const std::size_t taken = unsent > 0 ? 0 : peer.Send(std::string_view(text).substr(sent % text.size()));
      sent += taken;
      if (taken > 0) {
        standstills = 0;
        continue;
      }
      fixture.Settle();
      peer.Poll();
      standstills = peer.Unsent() < unsent ? 0 : standstills + 1;
    }
    EXPECT_LT(sent, kMost_bytes);
    return sent;
  }

  // What is wrong with what `reader` gets: `count` bytes that are `text` again and again, and then `rest`,
  // which `writer` sends now; "" for nothing.
  std::string MissingOf(TestPeer& reader, TestPeer& writer, const std::string& text, std::size_t count,
                        std::string rest) {
    std::string wanted;
    while (wanted.size() < count) wanted += text;
    wanted.resize(count);
    wanted += rest;
    std::string& received = reader.Received();
    fixture.Until([&] {
      reader.Poll();
      if (writer.Unsent() == 0) rest.erase(0, writer.Send(rest));
      return received.size() >= wanted.size() || reader.AtEnd();
    });
    if (received == wanted) return "";
    return std::to_string(received.size()) + " bytes of " + std::to_string(wanted.size());
  }

  SessionFixture fixture;
};

struct Sides {
  Security client;
  bool server;
};
constexpr Sides kSides[] = {
    {Security::kStartTls, false}, {Security::kPlain, true}, {Security::kTlsPort, true}};

TEST(StuckTls, WhatTheServerSaysWaitsForAClientThatDoesNotRead) {
  const std::string line = "250-" + std::string(500, 'x') + "\r\n";
  for (const Sides& sides : kSides) {
    SCOPED_TRACE(static_cast<int>(sides.client) * 10 + (sides.server ? 1 : 0));
    SecuredSession session(sides.client, sides.server);
    SessionFixture& fixture = session.fixture;
    EXPECT_EQ(fixture.Play("C: HELP\n-> HELP"), "");
    TestPeer client = std::move(fixture.ClientPeer());  // not read by the fixture now
    client.HoldLittle();
    const std::size_t memory = HeapInUse();
    const std::size_t said = session.SendUntilHeld(fixture.ServerPeer(), line);
    EXPECT_GT(said, std::size_t{64} << 10);
    EXPECT_LT(HeapInUse(), memory + kMostMemory_bytes);
    // The last line that it has begun, and the end of the reply, of which a part may be held till then.
    const std::string rest = line.substr(said % line.size()) + "250 end\r\n";
    EXPECT_EQ(session.MissingOf(client, fixture.ServerPeer(), line, said, rest), "");
    EXPECT_EQ(fixture.Sessions().Count(), 1U);
  }
}

TEST(StuckTls, WhatTheClientSaysWaitsForAServerThatDoesNotRead) {
  const std::string line = std::string(998, 'x') + "\r\n";
  for (const Sides& sides : kSides) {
    SCOPED_TRACE(static_cast<int>(sides.client) * 10 + (sides.server ? 1 : 0));
    SecuredSession session(sides.client, sides.server);
    SessionFixture& fixture = session.fixture;
    EXPECT_EQ(fixture.Play(MailAndRcpt() + Data()), "");
    TestPeer server = std::move(fixture.ServerPeer());
    server.HoldLittle();
    const std::size_t memory = HeapInUse();
    const std::size_t sent = session.SendUntilHeld(fixture.ClientPeer(), line);
    EXPECT_GT(sent, std::size_t{64} << 10);
    EXPECT_LT(HeapInUse(), memory + kMostMemory_bytes);
    const std::string rest = line.substr(sent % line.size()) + ".\r\n";
    EXPECT_EQ(session.MissingOf(server, fixture.ClientPeer(), line, sent, rest), "");
    EXPECT_EQ(fixture.Sessions().Count(), 1U);
  }
}

}  // namespace
}  // namespace trabex
