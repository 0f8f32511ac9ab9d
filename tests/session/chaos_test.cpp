// Clients and servers that do anything at any time: no session outlives them, and nothing fails in between.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "session/session_fixture.h"

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

class Chaos {
 public:
  explicit Chaos(unsigned seed) : random_(seed) {
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
    fixture_.Start();
  }

  void Act() {
    switch (Any(24)) {
      case 0:
        return fixture_.ClientPeer().ShutDownSending();
      case 1:
        return fixture_.ClientPeer().Close();
      case 2:
        return fixture_.ClientPeer().Reset();
      case 3:
        return fixture_.ServerPeer().ShutDownSending();
      case 4:
        return fixture_.ServerPeer().Close();
      case 5:
        return fixture_.ServerPeer().Reset();
      case 6:
        LeaveClient();
        LeaveServer();
        EXPECT_EQ(fixture_.Play("connect"), "");
        return;
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
        return Say(fixture_.ServerPeer(), kServerWords);
      default:
        return Say(fixture_.ClientPeer(), kClientWords);
    }
  }

  // The client goes; the clock goes on, the names come, the server answers whatever it was asked, or goes
  // too: nothing may be left.
  void End() {
    const bool server_stays = Any(2) != 0;
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
        if (fixture_.ServerPeer().Open()) fixture_.ServerPeer().Send("250 ok\r\n");
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

  void Step() {
    if (Any(3)) fixture_.Loop.RunOnce(Milliseconds(0));
    if (fixture_.ServerPeer().Open() && !fixture_.ServerPeer().AtEnd()) return;
    fixture_.ServerPeer() = fixture_.Server().Accept();
    // Most servers greet, and most clients begin as they should.
    if (!fixture_.ServerPeer().Open() || Any(4) == 0) return;
    fixture_.ServerPeer().Send("220 ready\r\n");
    if (Any(2))
      fixture_.ClientPeer().Send(
          "EHLO client.test\r\nMAIL FROM:<a@b.test>\r\nRCPT TO:<u@local.test>\r\nDATA\r\n");
    if (Any(2)) fixture_.ServerPeer().Send("250-server\r\n250 CHUNKING\r\n");
  }

 private:
  int Any(int count) { return static_cast<int>(random_() % static_cast<unsigned>(count)); }

  void Say(TestPeer& peer, const std::vector<std::string_view>& words) {
    if (!peer.Open()) return;
    std::string said;
    for (int count = 1 + Any(3); count > 0; --count) said += words[random_() % words.size()];
    peer.Send(said);
  }

  void LeaveClient() { Any(2) ? fixture_.ClientPeer().Close() : fixture_.ClientPeer().Reset(); }
  void LeaveServer() { Any(2) ? fixture_.ServerPeer().Close() : fixture_.ServerPeer().Reset(); }

  std::mt19937 random_;
  SessionFixture fixture_;
};

TEST(Chaos, LeavesNothingBehind) {
  std::ptrdiff_t contents = 0;
  for (unsigned seed = 0; seed < 1000; ++seed) {
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
  EXPECT_GT(contents, 100);
}

}  // namespace
}  // namespace trabex
