// Peers that do not read: what waits for them is bounded in time, and does not hold up others.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <utility>

#include "session/dialogues.h"
#include "session/session_fixture.h"
#include "support/told_by_system.h"

namespace trabex {
namespace {

// No system holds this much for a peer that does not read.
constexpr std::size_t kMost_bytes = std::size_t{64} << 20;
// Who has read this much shows it: TCP announces free room in portions (RFC 1122, 4.2.3.3).
constexpr std::size_t kVisible_bytes = std::size_t{256} << 10;

// A session of which one peer does not read.
class StuckSession {
 public:
  StuckSession() {
    fixture.Settings.MaxBadSeq = std::numeric_limits<std::int32_t>::max();
    cReplaces replaces;
    replaces.SetName("BadSeq");
    replaces.Add("", Reply(), true);
    fixture.Settings.ResponseChanges.Add(replaces);
  }

  // The client sends commands and reads no reply, until one waits for it.
  void HoldClient() {
    ASSERT_EQ(fixture.Play("S: 220 server ready\n<- 220 server ready"), "");
    client = std::move(fixture.ClientPeer());  // not read by the fixture now
    client.HoldLittle();
    SendCommands();
  }
  void SendCommands() {
    const std::string line = "RCPT " + std::string(1000, 'x') + "\r\n";
    commands_bytes_ += SendUntilHeld(client, line);
    // The last one may not have been sent whole.
    for (std::size_t i = replies.size() / (Reply().size() + 2); i < commands_bytes_ / line.size(); ++i) {
      replies.append(Reply()).append("\r\n");
    }
    ASSERT_LT(Session().BytesSent(), static_cast<std::int64_t>(replies.size()));
  }

  // The server sends replies inside a chunk, and the client reads none, until some wait for it.
  void HoldClientInChunk() {
    ASSERT_EQ(fixture.Play(InChunk()), "");
    HoldClientWithReplies(fixture.ServerPeer());
  }
  // The same, and before that the server reads nothing of the chunk, until some waits for it.
  void HoldBothInChunk() {
    ASSERT_EQ(fixture.Play(InChunk()), "");
    server = std::move(fixture.ServerPeer());
    server.HoldLittle();
    SendUntilHeld(fixture.ClientPeer(), std::string(1000, 'x'));
    HoldClientWithReplies(server);
  }

  // The server reads no content, until some waits for it.
  void HoldServer() {
    ASSERT_EQ(fixture.Play(InContent()), "");
    server = std::move(fixture.ServerPeer());
    server.HoldLittle();
    SendUntilHeld(fixture.ClientPeer(), std::string(998, 'x') + "\r\n");
  }

  void Pass(int seconds) {
    for (int half = 0; half < 2 * seconds; ++half) {
      fixture.Time.Advance(Milliseconds(500));
      fixture.Settle();
    }
  }

  // Goes on until the session ends; returns how many seconds `held` had got nothing more by then. The
  // system may still move a little of what it has, in its own time.
  int SecondsToTheEnd(const TestPeer& held) {
    std::size_t there = held.Untaken();
    int seconds = 0;
    for (int all = 0; !Ended() && all < 10000; ++all, ++seconds) {
      Pass(1);
      // What moves when the session has ended is the end itself.
      if (Ended()) continue;
      if (const std::size_t now = held.Untaken(); now != there) {
        there = now;
        seconds = 0;
      }
    }
    EXPECT_TRUE(Ended());
    return seconds;
  }

  // `peer` reads enough for everybody to see that it does.
  void ReadVisibly(TestPeer& peer) {
    std::size_t taken = 0;
    EXPECT_TRUE(
        fixture.Until([&] { return (taken += peer.Take(kVisible_bytes - taken)) == kVisible_bytes; }));
  }
  // What the client gets when it reads to the end.
  std::string ReadToEnd() {
    EXPECT_TRUE(fixture.Until([this] {
      client.Poll();
      return client.AtEnd();
    }));
    EXPECT_FALSE(client.WasReset());
    return std::exchange(client.Received(), {});
  }
  // The same without the replies to its commands, which must come first, whole, and none left out.
  std::string ReadBehindReplies() {
    const std::string got = ReadToEnd();
    const std::string reply = Reply() + "\r\n";
    std::size_t at = 0;
    while (std::string_view(got).substr(at, reply.size()) == reply) at += reply.size();
    EXPECT_GT(at, 0U);
    return got.substr(at);
  }

  bool ServerIsLetGo() const {
    return fixture.LogLines().back().find("] Disconnected. ") != std::string::npos;
  }
  cProxy& Session() { return fixture.Sessions().At(0); }
  bool Ended() { return fixture.Sessions().Count() == 0; }

  static std::string Reply() { return "503 " + std::string(2000, 'x'); }

  SessionFixture fixture;
  TestPeer client;
  TestPeer server;
  std::string replies;  // to the commands sent

 private:
  static std::string InChunk() {
    return InTransaction() + "C: BDAT 1000000000\n-> BDAT *\nC+ x\n-> Received: *";
  }
  void HoldClientWithReplies(TestPeer& from) {
    client = std::move(fixture.ClientPeer());
    client.HoldLittle();
    std::string said;
    while (said.size() < 30000) said.append("250 ").append(std::string(500, 'w')).append("\r\n");
    std::size_t all = 0;
    for (std::size_t lines = 0; lines != fixture.LogLines().size() && all < kMost_bytes; all += said.size()) {
      lines = fixture.LogLines().size();
      ASSERT_EQ(from.Send(said), said.size());
      AwaitStandstill();
    }
    ASSERT_LT(all, kMost_bytes);
  }
  // Sends `text` again and again until nothing moves any more; returns how many bytes went.
  std::size_t SendUntilHeld(TestPeer& peer, std::string_view text) {
    std::size_t sent = 0;
    for (int tries = 0; tries < 2 && sent < kMost_bytes;) {
      const std::size_t more = peer.Send(text.substr(sent % text.size()));
      sent += more;
      tries = more == 0 ? tries + 1 : 0;
      if (more == 0) AwaitStandstill();
    }
    EXPECT_LT(sent, kMost_bytes);
    return sent;
  }
  // Where the system does not tell what has arrived, it may also tell later that there is room.
  void AwaitStandstill() {
    fixture.Settle();
    if (AcknowledgementsAreTold()) return;
    while (fixture.Loop.RunOnce(Milliseconds(200))) fixture.Settle();
  }

  std::size_t commands_bytes_ = 0;
};

// For how long a send may stand still at least. Where it is not told what has arrived, the time begins with what the
// system took last, which may have been long before.
int LeastSeconds() {
  return AcknowledgementsAreTold() ? 300 : 1;
}

TEST(Stuck, AClientThatDoesNotReadLosesItsSession) {
  StuckSession stuck;
  stuck.HoldClient();
  EXPECT_GE(stuck.SecondsToTheEnd(stuck.client), 300);
  EXPECT_EQ(stuck.fixture.Play("log R: {*] Send time-out. Closing connection.\nclosed S"), "");
  stuck.Pass(6);
  EXPECT_EQ(stuck.fixture.Sockets_().LingeringCount(), 0U);
}

// Long before a send can go on, the acknowledgements show that the client reads.
TEST(Stuck, AClientThatReadsSlowlyKeepsItsSession) {
  StuckSession stuck;
  stuck.HoldClient();
  const std::int64_t taken = stuck.Session().BytesSent();
  int acknowledged_only = 0;
  for (int step = 0; step < 10; ++step) {
    stuck.ReadVisibly(stuck.client);
    stuck.Pass(299);
    ASSERT_FALSE(stuck.Ended()) << "in step " << step;
    if (stuck.Session().BytesSent() == taken) ++acknowledged_only;
  }
  // Where the system does not tell, what it takes shows the same.
  EXPECT_GT(acknowledged_only, AcknowledgementsAreTold() ? 1 : -1);
  stuck.SecondsToTheEnd(stuck.client);
}

TEST(Stuck, AServerThatDoesNotReadLosesItsSession) {
  StuckSession stuck;
  stuck.HoldServer();
  EXPECT_GE(stuck.SecondsToTheEnd(stuck.server), 300);
  EXPECT_EQ(stuck.fixture.Play(R"(
    <- 421 proxy.test is temporarily unavailable.
    closed C
    log S: {*] Send time-out. Closing connection.)"),
            "");
}

TEST(Stuck, AServerThatReadsSlowlyKeepsItsSession) {
  StuckSession stuck;
  stuck.HoldServer();
  const std::int64_t taken = stuck.Session().BytesReceived();
  int acknowledged_only = 0;
  for (int step = 0; step < 10; ++step) {
    stuck.ReadVisibly(stuck.server);
    stuck.Pass(299);
    ASSERT_FALSE(stuck.Ended()) << "in step " << step;
    if (stuck.Session().BytesReceived() == taken) ++acknowledged_only;
  }
  // Where the system does not tell, what it takes shows the same.
  EXPECT_GT(acknowledged_only, AcknowledgementsAreTold() ? 1 : -1);
  stuck.SecondsToTheEnd(stuck.server);
}

// It answers what it has not read; a session holds one command for it and no more.
TEST(Stuck, NoCommandIsTakenWhileTheOneBeforeItWaits) {
  StuckSession stuck;
  stuck.fixture.Settings.LogLevelRemote = stuck.fixture.Settings.LogLevelServer = 0;
  ASSERT_EQ(stuck.fixture.Play(Greeted()), "");
  stuck.server = std::move(stuck.fixture.ServerPeer());
  stuck.server.HoldLittle();
  const std::string line = "NOOP " + std::string(4000, 'x') + "\r\n";
  const auto next_is_taken = [&] {
    const std::int64_t taken = stuck.Session().BytesReceived();
    stuck.fixture.ClientPeer().Send(line);
    stuck.fixture.Settle();
    stuck.server.Send("250 ok\r\n");
    stuck.fixture.Settle();
    return stuck.Session().BytesReceived() > taken;
  };
  std::size_t sent = 0;
  while (sent < kMost_bytes && next_is_taken()) sent += line.size();
  EXPECT_LT(sent, kMost_bytes);
  const std::int64_t taken = stuck.Session().BytesReceived();
  EXPECT_TRUE(stuck.fixture.Until([&] {
    stuck.server.Poll();
    return stuck.Session().BytesReceived() > taken;
  }));
}

// It began to say why, and was stuck with that too.
TEST(Stuck, LastWordsOfAServerThatDoesNotReadComeFirst) {
  StuckSession stuck;
  stuck.HoldServer();
  stuck.server.Send("452-no\r\n452 disk fu");
  stuck.SecondsToTheEnd(stuck.server);
  EXPECT_EQ(stuck.fixture.Play(R"(
    <- 452-no
    <- 452 disk fu
    closed C)"),
            "");
}

// What it says waits for a client that reads too slowly for it.
TEST(Stuck, LastWordsOfAServerThatDoesNotReadComeFirstToASlowClientToo) {
  StuckSession stuck;
  stuck.HoldBothInChunk();
  stuck.server.Send("421 time is up\r\n");
  stuck.Pass(200);
  stuck.ReadVisibly(stuck.client);
  for (const std::string& line : stuck.fixture.LogLines())
    ASSERT_EQ(line.find("time is up"), std::string::npos);
  for (int seconds = 0; seconds < 250 && !stuck.ServerIsLetGo(); ++seconds) stuck.Pass(1);
  ASSERT_FALSE(stuck.Ended());
  EXPECT_TRUE(
      stuck.ReadToEnd().ends_with("w\r\n421 time is up\r\n421 proxy.test is temporarily unavailable.\r\n"));
}

TEST(Stuck, ASessionInWhichNothingWaitsMayBeIdle) {
  StuckSession stuck;
  ASSERT_EQ(stuck.fixture.Play(Greeted()), "");
  stuck.Pass(1000);
  EXPECT_EQ(stuck.fixture.Play("C: NOOP\n-> NOOP"), "");
  stuck.Pass(1000);
  EXPECT_EQ(stuck.fixture.Play("S: 250 ok\n<- 250 ok"), "");
}

TEST(Stuck, EachSendHasItsOwnTime) {
  StuckSession stuck;
  stuck.HoldClient();
  stuck.Pass(200);
  EXPECT_TRUE(stuck.fixture.Until([&] {
    stuck.client.Poll();
    return stuck.client.Received().size() >= stuck.replies.size();
  }));
  stuck.Pass(200);
  stuck.SendCommands();
  EXPECT_GE(stuck.SecondsToTheEnd(stuck.client), LeastSeconds());
}

// --- the server goes while the client does not read

TEST(Stuck, AServerThatHangsUpIsLetGo) {
  if (!AcknowledgementsAreTold()) GTEST_SKIP() << "Wine does not tell what the other end has acknowledged";
  for (const std::string_view words : {"421 time is up\r\n", "421 time is up", ""}) {
    SCOPED_TRACE(words);
    StuckSession stuck;
    stuck.HoldClient();
    stuck.fixture.ServerPeer().Send(words);
    stuck.fixture.ServerPeer().ShutDownSending();
    stuck.fixture.Settle();
    stuck.Pass(1);
    EXPECT_TRUE(stuck.fixture.Until([&] { return stuck.fixture.ServerPeer().AtEnd(); }));
    EXPECT_FALSE(stuck.fixture.ServerPeer().WasReset());
    // The client may still read, at any time while the rest makes progress.
    stuck.Pass(250);
    ASSERT_FALSE(stuck.Ended());
    stuck.ReadVisibly(stuck.client);
    stuck.Pass(250);
    ASSERT_FALSE(stuck.Ended());
    EXPECT_EQ(stuck.ReadBehindReplies(), words.empty() ? "" : "421 time is up\r\n");
    EXPECT_TRUE(stuck.Ended());
  }
}

TEST(Stuck, AServerThatBreaksOffIsLetGo) {
  StuckSession stuck;
  stuck.HoldClient();
  stuck.fixture.ServerPeer().Send("421 time is up\r\n421 bye");
  stuck.fixture.Settle();
  stuck.fixture.ServerPeer().Reset();
  stuck.fixture.Settle();
  stuck.Pass(1);
  EXPECT_EQ(stuck.fixture.Play("log S: {*] Disconnected. *"), "");
  EXPECT_FALSE(stuck.Ended());
  // After an orderly end nothing of ours would have to be said.
  const std::string ours = ResetsAreTold() ? "421 proxy.test is temporarily unavailable.\r\n" : "";
  EXPECT_EQ(stuck.ReadBehindReplies(), "421 time is up\r\n421 bye\r\n" + ours);
  EXPECT_TRUE(stuck.Ended());
}

TEST(Stuck, AServerThatIsThereWaitsForTheClient) {
  StuckSession stuck;
  stuck.HoldClient();
  stuck.fixture.ServerPeer().Send("250 later\r\n");
  stuck.fixture.Settle();
  stuck.Pass(10);
  for (const std::string& line : stuck.fixture.LogLines()) EXPECT_EQ(line.find("later"), std::string::npos);
}

// The session ends when the client has taken the refusal; what the server said by then goes behind it.
TEST(Stuck, WhatTheServerSaysDuringTheLastReplyIsNotLost) {
  const struct {
    const char* key;
    std::string before;
    std::string client;
    std::string server;
  } kRows[] = {
      {"452", InContent(), "", "452 no room\r\n"},
      {"LineTooLong", Greeted(), "NOOP " + std::string(5000, 'x'), ""},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.key);
    StuckSession stuck;
    cReplaces replaces;
    replaces.SetName(row.key);
    const std::string refusal = "452 " + std::string(std::size_t{16} << 20, 'x');
    replaces.Add("", refusal, true);
    stuck.fixture.Settings.ResponseChanges.Add(replaces);
    ASSERT_EQ(stuck.fixture.Play(row.before), "");
    stuck.client = std::move(stuck.fixture.ClientPeer());
    stuck.client.HoldLittle();
    stuck.client.Send(row.client);
    stuck.fixture.ServerPeer().Send(row.server);
    stuck.fixture.Settle();
    stuck.fixture.ServerPeer().Send("421 leaving\r\n");
    stuck.fixture.Settle();
    ASSERT_FALSE(stuck.Ended());
    EXPECT_TRUE(stuck.ReadToEnd() == refusal + "\r\n421 leaving\r\n");
    EXPECT_TRUE(stuck.Ended());
  }
}

// There is no server for what the client goes on sending.
TEST(Stuck, ContentIsNotTakenWhenTheServerHasGone) {
  StuckSession stuck;
  stuck.HoldClientInChunk();
  stuck.fixture.ServerPeer().ShutDownSending();
  stuck.fixture.Settle();
  stuck.Pass(1);
  EXPECT_TRUE(stuck.ServerIsLetGo());
  const std::size_t lines = stuck.fixture.LogLines().size();
  stuck.client.Send("more of it");
  stuck.fixture.Settle();
  EXPECT_EQ(stuck.fixture.LogLines().size(), lines);
}

// Replies that come while the client does not read are no less filtered than others.
TEST(Stuck, LastRepliesPassTheFilter) {
  StuckSession stuck;
  cReplaces replaces;
  replaces.SetName("421");
  replaces.Add("", "421 come again", true);
  stuck.fixture.Settings.ResponseChanges.Add(replaces);
  stuck.HoldClient();
  stuck.fixture.ServerPeer().Send("421-server.inside.test\r\n421 is leaving\r\n");
  stuck.fixture.ServerPeer().Close();
  stuck.fixture.Settle();
  stuck.Pass(1);
  EXPECT_EQ(stuck.ReadBehindReplies(), "421 come again\r\n");
}

// What a session holds for a client that does not read is bounded; the rest stays with the server's socket
// until the client reads.
TEST(Stuck, LongLastWordsWaitForTheClient) {
  std::string words;
  while (words.size() < 90000) words.append("214-").append(std::string(500, 'w')).append("\r\n");
  words.append("214 end\r\n");
  StuckSession stuck;
  stuck.HoldClient();
  ASSERT_EQ(stuck.fixture.ServerPeer().Send(words), words.size());
  stuck.fixture.ServerPeer().ShutDownSending();
  stuck.fixture.Settle();
  stuck.Pass(1);
  EXPECT_FALSE(stuck.fixture.ServerPeer().AtEnd());
  // Its next commands may be answered before the end is found after these words.
  EXPECT_TRUE(stuck.ReadBehindReplies().starts_with(words));
  EXPECT_TRUE(stuck.fixture.Until([&] { return stuck.fixture.ServerPeer().AtEnd(); }));
  EXPECT_TRUE(stuck.Ended());
}

TEST(Stuck, AClientWhoseServerHasGoneIsNotKeptForEver) {
  for (const bool long_words : {false, true}) {
    SCOPED_TRACE(long_words);
    StuckSession stuck;
    stuck.HoldClient();
    stuck.fixture.ServerPeer().Send(std::string(long_words ? 90000 : 9, 'w'));
    stuck.fixture.ServerPeer().ShutDownSending();
    EXPECT_GE(stuck.SecondsToTheEnd(stuck.client), LeastSeconds());
    EXPECT_TRUE(stuck.fixture.Until([&] { return stuck.fixture.ServerPeer().AtEnd(); }));
  }
}

TEST(Stuck, AClientThatBreaksOffAfterItsServerEndsTheSession) {
  StuckSession stuck;
  stuck.HoldClient();
  stuck.fixture.ServerPeer().Close();
  stuck.Pass(1);
  EXPECT_FALSE(stuck.Ended());
  stuck.client.Reset();
  stuck.fixture.Settle();
  EXPECT_TRUE(stuck.Ended());
}

TEST(Stuck, ShutDownDoesNotWaitForAClientWhoseServerHasGone) {
  StuckSession stuck;
  stuck.HoldClient();
  stuck.fixture.ServerPeer().Close();
  stuck.Pass(1);
  stuck.fixture.Shutdown();
  stuck.fixture.Settle();
  EXPECT_TRUE(stuck.Ended());
}

}  // namespace
}  // namespace trabex
