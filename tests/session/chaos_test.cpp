// Clients and servers that do anything at any time: no session outlives them, and nothing fails in between.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "session/session_fixture.h"
#include "support/seeds.h"
#include "support/test_certificates.h"
#include "tls/tls_context.h"

namespace trabex {
namespace {

const std::vector<std::string_view> kClientWords = {"EHLO client.test\r\n",
                                                    "HELO black.test\r\n",
                                                    "MAIL FROM:<a@b.test>\r\n",
                                                    "RCPT TO:<u@local.test>\r\n",
                                                    "RCPT TO:<x@far.test>\r\n",
                                                    "DATA\r\n",
                                                    "a line of content\r\n",
                                                    "\r\n.\r\n",
                                                    ".\r\n",
                                                    "\n.\r",
                                                    "BDAT 9\r\n",
                                                    "BDAT 4 LAST\r\n",
                                                    "12345",
                                                    "RSET\r\n",
                                                    "NOOP\r\nNOOP\r\nNOOP\r\n",
                                                    "QUIT\r\n",
                                                    "AUTH LOGIN\r\n",
                                                    "eHVt\r\n",
                                                    "XEXCH50 3 1\r\n",
                                                    "STARTTLS\r\n",
                                                    "half a li",
                                                    "\r",
                                                    "\n",
                                                    "BDAT x\r\n",
                                                    "NO\tOP\r\n",
                                                    "\x80\xff\r\n"};
const std::vector<std::string_view> kServerWords = {
    "220 ready\r\n",
    "250 ok\r\n",
    "250-server\r\n250-CHUNKING\r\n250-XEXCH50\r\n250-AUTH LOGIN\r\n250 SIZE 99\r\n",
    "354 go on\r\n",
    "334 VXNlcg==\r\n",
    "550 no\r\n",
    "421 leaving\r\n",
    "221 bye\r\n",
    "250-half",
    "250 a\r\n250 b\r\n",
    "no reply at all\r\n",
    "\r\n",
    "250 ok\n",
    "503 order\r\n",
    "250-x\r\n354 y\r\n"};

// A client or server under TLS, or on the way there.
struct TlsSide {
  bool begun = false;
  bool ended = false;      // it has said that nothing more comes
  bool spoken_to = false;  // what comes first has been said
};

class Chaos {
 public:
  // `with_tls`: also on either side, in every way that the settings know.
  explicit Chaos(unsigned seed, bool with_tls = false) : random_(seed), with_tls_(with_tls) {
    Configuration& settings = fixture_.Settings;
    settings.MaxBadSeq = Any(4);
    settings.ValidateRDNS = Any(4);
    settings.ValidateHELO = Any(16);
    settings.AddReceived = Any(2) != 0;
    settings.Timeout = Any(3);
    settings.LogLevelRemote = settings.LogLevelServer = 255;
    settings.HELOBlackList.Add("black.test", {{"black.test"}, false});
    if (Any(2)) settings.LocalIPs = IPRangeList();
    if (Any(8) == 0) settings.ServerIP = "nowhere.test";
    if (Any(8) == 0) settings.MaxConnections = 1;
    if (Any(2)) fixture_.Names.SetName(kIPv4Loopback, "client.test");
    if (Any(3) == 0) fixture_.Names.HoldAnswers();
    if (with_tls_) ConfigureTls();
    fixture_.Start();
  }

  void Act() {
    // A handshake needs its time.
    if (with_tls_ && Any(3)) return Any(12) == 0 ? ActOnTls() : void();
    switch (Any(24)) {
      case 0:
        client_tls_.ended = true;
        return fixture_.ClientPeer().ShutDownSending();
      case 1:
        return fixture_.ClientPeer().Close();
      case 2:
        return fixture_.ClientPeer().Reset();
      case 3:
        server_tls_.ended = true;
        return fixture_.ServerPeer().ShutDownSending();
      case 4:
        return fixture_.ServerPeer().Close();
      case 5:
        return fixture_.ServerPeer().Reset();
      case 6:
        return ConnectAnew();
      case 7:
        fixture_.Time.Advance(Milliseconds(Any(1500)));
        return fixture_.CheckTimeouts();
      case 8:
        fixture_.Names.Deliver();
        return;
      case 9:
        return fixture_.Settle();
      case 10:
        if (Any(10) == 0) fixture_.Shutdown();
        return;
      case 11:
      case 12:
      case 13:
      case 14:
      case 15:
        return Say(fixture_.ServerPeer(), server_tls_, kServerWords);
      default:
        return Say(fixture_.ClientPeer(), client_tls_, kClientWords);
    }
  }

  // The client goes; the clock goes on, the names come, the server answers whatever it was asked, or goes
  // too: nothing may be left.
  void End() {
    const bool server_stays = Any(2) != 0;
    ending_ = true;
    LeaveClient();
    if (!server_stays) {
      LeaveServer();
      fixture_.Server().Close();
    }
    const bool ended = fixture_.Until([&] {
      fixture_.Names.Deliver();
      fixture_.Time.Advance(Milliseconds(100));
      fixture_.CheckTimeouts();
      if (server_stays) {
        Step();
        Send(fixture_.ServerPeer(), server_tls_, "250 ok\r\n");
      }
      return fixture_.Sessions().Count() == 0;
    });
    EXPECT_TRUE(ended) << fixture_.Sessions().Count() << " sessions are left";
    for (const std::string& line : fixture_.LogLines()) {
      // What a handler lets out is logged with where that was.
      EXPECT_EQ(line.find(" in cProxy."), std::string::npos) << line;
      EXPECT_EQ(line.find(" in CSocketMaster."), std::string::npos) << line;
    }
  }

  // How many times a session came as far as message content.
  std::ptrdiff_t Contents() const {
    return std::count_if(fixture_.LogLines().begin(), fixture_.LogLines().end(), [](const std::string& line) {
      return line.find("R: ") != std::string::npos && line.find("] > 354 ") != std::string::npos;
    });
  }

  // How many handshakes were finished.
  std::ptrdiff_t Secured(std::string_view side) const {
    return std::count_if(fixture_.LogLines().begin(), fixture_.LogLines().end(),
                         [&](const std::string& line) {
                           return line.starts_with(side) && line.find("] TLS: TLSv1.3") != std::string::npos;
                         });
  }

  void Step() {
    if (Any(3)) fixture_.Loop.RunOnce(Milliseconds(0));
    if (with_tls_) StepTls();
    if (fixture_.ServerPeer().Open() && !fixture_.ServerPeer().AtEnd()) return;
    fixture_.ServerPeer() = fixture_.Server().Accept();
    server_tls_ = {};
    // Most servers greet, and most clients begin as they should.
    if (!fixture_.ServerPeer().Open() || Any(4) == 0) return;
    if (with_tls_ && fixture_.Settings.TLS.Server == server_tls::kImplicit) {
      return Begin(fixture_.ServerPeer(), server_tls_, true);
    }
    fixture_.ServerPeer().Send("220 ready\r\n");
    if (Any(2)) Send(fixture_.ClientPeer(), client_tls_, kMessage);
    if (Any(2)) fixture_.ServerPeer().Send("250-server\r\n250 CHUNKING\r\n");
  }

 private:
  static constexpr std::string_view kMessage =
      "EHLO client.test\r\nMAIL FROM:<a@b.test>\r\nRCPT TO:<u@local.test>\r\nDATA\r\n";

  void ConfigureTls() {
    Configuration& settings = fixture_.Settings;
    fixture_.OfferTls();
    fixture_.OnTlsPort = Any(3) == 0;
    fixture_.HandshakeAtOnce = false;
    // Most come further than that.
    if (Any(4)) settings.ValidateRDNS = settings.ValidateHELO = 0;
    settings.SendClientIP = Any(2) * Any(4);
    settings.TLS.Server = Any(4);
    settings.TLS.HandshakeTimeout = 1 + Any(10);
    settings.TLS.MaxHandshakes = Any(3);
    settings.TLS.Require = Any(8) == 0 ? 3 : 0;
    TlsLoadReport report;
    if (Any(8)) fixture_.Tls.for_server = TlsContext::ForClient({.verify = Any(8) == 0}, report);
    if (Any(2)) fixture_.ClientPeer().CutWire(static_cast<std::size_t>(1 + Any(100)));
  }

  void Begin(TestPeer& peer, TlsSide& side, bool server) {
    static const TestCertificate certificate = MakeTestCertificate({});
    if (!peer.Open() || side.begun) return;
    side.begun = true;
    peer.StartTls({.server = server, .certificate = server ? certificate : TestCertificate{}});
  }

  // What nobody has asked for.
  void ActOnTls() {
    const bool of_client = Any(2) != 0;
    TestPeer& peer = of_client ? fixture_.ClientPeer() : fixture_.ServerPeer();
    TlsSide& side = of_client ? client_tls_ : server_tls_;
    switch (Any(6)) {
      case 0:
        return Any(4) == 0 ? Begin(peer, side, !of_client) : void();
      case 1:
        if (!peer.Open() || Any(4)) return;
        side.ended = true;
        return peer.SayGoodbye();
      case 2:
        if (peer.Open() && Any(8) == 0) peer.SendInClear("250 in the clear\r\nRSET\r\n");
        return;
      case 3:
        return peer.CutWire(static_cast<std::size_t>(1 + Any(300)));
      default:
        fixture_.Loop.RunOnce(Milliseconds(0));
        return;
    }
  }

  // Takes `text` out of what has come, if that ends in it, and most of the time.
  bool Heard(TestPeer& peer, std::string_view text) {
    if (!peer.Open() || peer.Received().find(text) == std::string::npos) return false;
    peer.Received().clear();
    return Any(8) != 0;
  }

  // What a client and a server do that come as far as TLS.
  void StepTls() {
    fixture_.Until([] { return true; });  // the peers take what has come
    TestPeer& client = fixture_.ClientPeer();
    if (!ending_ && (!client.Open() || client.AtEnd()) && Any(8) == 0) ConnectAnew();
    TestPeer& server = fixture_.ServerPeer();
    if (fixture_.OnTlsPort && Any(8)) Begin(client, client_tls_, false);
    if (!client_tls_.begun && Heard(client, "STARTTLS\r\n")) client.Send("STARTTLS\r\n");
    if (Heard(client, "220 2.0.0 Ready to start TLS.\r\n")) Begin(client, client_tls_, false);
    if (client.Secured() && !client_tls_.spoken_to) {
      client_tls_.spoken_to = true;
      Send(client, client_tls_, kMessage);
    }
    if (Heard(server, "EHLO proxy.test\r\n")) {
      Send(server, server_tls_, "250-server\r\n250-STARTTLS\r\n250 XCLIENT ADDR\r\n");
    }
    if (!server_tls_.begun && Heard(server, "STARTTLS\r\n")) {
      server.Send("220 go on\r\n");
      Begin(server, server_tls_, true);
    }
    if (Heard(server, "XCLIENT ")) Send(server, server_tls_, "220 welcome\r\n");
    if (server.Secured() && !server_tls_.spoken_to) {
      server_tls_.spoken_to = true;
      Send(server, server_tls_, "220 ready\r\n");
    }
    if (Heard(server, "DATA\r\n")) {
      Send(server, server_tls_, "354 go on\r\n");
    } else if (Heard(server, "\r\n")) {
      Send(server, server_tls_, "250 ok\r\n");
    }
  }

  static void Send(TestPeer& peer, const TlsSide& side, std::string_view text) {
    if (peer.Open() && !(peer.Secured() && (side.ended || !peer.TlsError().empty()))) peer.Send(text);
  }

  int Any(int count) { return static_cast<int>(random_() % static_cast<unsigned>(count)); }

  void Say(TestPeer& peer, const TlsSide& side, const std::vector<std::string_view>& words) {
    if (!peer.Open()) return;
    std::string said;
    for (int count = 1 + Any(3); count > 0; --count) said += words[random_() % words.size()];
    Send(peer, side, said);
  }

  void ConnectAnew() {
    LeaveClient();
    LeaveServer();
    EXPECT_EQ(fixture_.Play("connect"), "");
    client_tls_ = server_tls_ = {};
  }
  void LeaveClient() { Any(2) ? fixture_.ClientPeer().Close() : fixture_.ClientPeer().Reset(); }
  void LeaveServer() { Any(2) ? fixture_.ServerPeer().Close() : fixture_.ServerPeer().Reset(); }

  std::mt19937 random_;
  bool with_tls_;
  bool ending_ = false;
  TlsSide client_tls_;
  TlsSide server_tls_;
  SessionFixture fixture_;
};

// How often something is to have come in `seeds` sessions; with fewer of them it only has to come.
std::ptrdiff_t Wanted(std::ptrdiff_t often, unsigned seeds) {
  return SeedCount(seeds) < seeds ? 1 : often;
}

TEST(Chaos, LeavesNothingBehind) {
  std::ptrdiff_t contents = 0;
  for (unsigned seed = 0; seed < SeedCount(1000); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Chaos chaos(seed);
    for (int step = 0; step < 60; ++step) {
      chaos.Act();
      chaos.Step();
    }
    chaos.End();
    contents += chaos.Contents();
    if (testing::Test::HasFailure()) return;
  }
  EXPECT_GE(contents, Wanted(100, 1000));
}

TEST(Chaos, LeavesNothingBehindUnderTls) {
  std::ptrdiff_t contents = 0;
  std::ptrdiff_t clients = 0;
  std::ptrdiff_t servers = 0;
  for (unsigned seed = 0; seed < SeedCount(120); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Chaos chaos(seed, true);
    for (int step = 0; step < 150; ++step) {
      chaos.Act();
      chaos.Step();
    }
    chaos.End();
    contents += chaos.Contents();
    clients += chaos.Secured("R: ");
    servers += chaos.Secured("S: ");
    if (testing::Test::HasFailure()) return;
  }
  EXPECT_GE(contents, Wanted(10, 120));
  EXPECT_GE(clients, Wanted(80, 120));
  EXPECT_GE(servers, Wanted(40, 120));
}

}  // namespace
}  // namespace trabex
