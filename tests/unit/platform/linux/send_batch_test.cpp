// What is sent in the calls of a loop iteration goes to the kernel after them.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/sockets/send_batch.h"
#include "unit/platform/linux/sockets_fixture.h"

namespace trabex {
namespace {

class SendBatchTest : public LinuxSocketsTest {
 protected:
  // Runs `calls` in one iteration.
  void InIteration(std::function<void()> calls) {
    loop.Post(std::move(calls));
    loop.RunOnce(Milliseconds{0});
  }
  int Say(std::string_view text, bool more_follows = false) {
    std::size_t sent = 0;
    const int result = sockets.Send(ours, text, sent, more_follows);
    EXPECT_EQ(sent, result == 0 ? text.size() : 0);
    return result;
  }
  // What one receive of the peer gives now; "-" for nothing, "" for the end.
  std::string PeerGets() const {
    char room[65536];
    const ssize_t count = recv(raw, room, sizeof room, MSG_DONTWAIT);
    return count < 0 ? "-" : std::string(room, static_cast<std::size_t>(count));
  }
  // Everything until the end.
  std::string PeerGetsAll() {
    std::string all;
    RunUntil(loop, [&] {
      char room[65536];
      const ssize_t count = recv(raw, room, sizeof room, MSG_DONTWAIT);
      if (count > 0) all.append(room, static_cast<std::size_t>(count));
      return count == 0;
    });
    return all;
  }
  // Says lines in iterations of their own until the kernel takes no more, and returns them.
  std::string SayUntilFull() {
    std::string all;
    for (int result = 0; result == 0;) {
      const std::string line = std::to_string(all.size()) + ";";
      InIteration([&] { result = Say(line); });
      if (result == 0) all += line;
      if (result != 0) {
        EXPECT_EQ(result, socket_error::kWouldBlock);
      }
    }
    return all;
  }
};

TEST_F(SendBatchTest, SmallSendsOfAnIterationGoTogetherAtItsEnd) {
  ConnectRaw();
  InIteration([&] {
    Say("one ");
    EXPECT_EQ(PeerGets(), "-");
    Say("two ", true);
    Say("three");
    EXPECT_EQ(PeerGets(), "-");
  });
  EXPECT_EQ(PeerGets(), "one two three");
}

TEST_F(SendBatchTest, WhatIsSaidAtTheEndOfAnIterationGoesToo) {
  ConnectRaw();
  InIteration([&] { loop.OnIterationEnd([&] { Say("last"); }); });
  EXPECT_EQ(PeerGets(), "last");
}

TEST_F(SendBatchTest, OutsideOfAnIterationASendGoesAtOnce) {
  ConnectRaw();
  Say("now");
  EXPECT_EQ(PeerGets(), "now");
}

TEST_F(SendBatchTest, WhoHasLongWorkSendsWhatWasCollected) {
  ConnectRaw();
  InIteration([&] {
    Say("before");
    sockets.SendCollected();
    EXPECT_EQ(PeerGets(), "before");
    Say("after");
    EXPECT_EQ(PeerGets(), "-");
  });
  EXPECT_EQ(PeerGets(), "after");
}

TEST_F(SendBatchTest, ALongSendGoesAtOnceBehindWhatWasSaidBefore) {
  ConnectRaw();
  const std::string content(SendBatch::kMaxBytes, 'c');
  InIteration([&] {
    Say("header ", true);
    Say(content);
    EXPECT_EQ(PeerGets(), "header " + content);
  });
}

TEST_F(SendBatchTest, ManySocketsDoNotWaitForTheLast) {
  ConnectRaw();
  std::vector<std::pair<SocketHandle, int>> others;
  for (std::size_t i = 0; i < SendBatch::kMaxDue; ++i) {
    const SocketHandle first = std::exchange(ours, {});
    const int first_raw = std::exchange(raw, -1);
    others.emplace_back(first, first_raw);
    ConnectRaw();
  }
  std::swap(others.back().first, ours);
  std::swap(others.back().second, raw);
  InIteration([&] {
    Say("early");
    std::size_t sent = 0;
    for (const auto& other : others) {
      EXPECT_EQ(PeerGets(), "-");
      sockets.Send(other.first, std::string("x"), sent);
    }
    EXPECT_EQ(PeerGets(), "early");
  });
  for (const auto& other : others) close(other.second);
}

TEST_F(SendBatchTest, TheLastWordsComeBeforeTheEnd) {
  const struct {
    const char* name;
    std::function<void()> end;
  } rows[] = {
      {"closed", [&] { sockets.Close(ours); }},
      {"shut down", [&] { sockets.ShutDownSending(ours); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    ConnectRaw();
    InIteration([&] {
      Say("bye");
      row.end();
    });
    EXPECT_EQ(PeerGets(), "bye");
    EXPECT_EQ(PeerGets(), "");
    close(std::exchange(raw, -1));
  }
}

TEST_F(SendBatchTest, WhatTheKernelDoesNotTakeGoesWhenItCan) {
  ConnectRawWithSmallBuffers();
  sockets.Watch(ours, &sink);
  RunUntilIdle(loop);
  sink.writes = 0;
  const std::string all = SayUntilFull();
  std::size_t waiting = 0;
  sockets.Unacknowledged(ours, waiting);
  EXPECT_GT(waiting, 0U);
  EXPECT_LE(waiting, all.size());
  EXPECT_EQ(sink.writes, 0);
  std::string got;
  EXPECT_TRUE(RunUntil(loop, [&] {
    const std::string some = PeerGets();
    if (some != "-") got += some;
    return got.size() == all.size();
  }));
  EXPECT_EQ(got, all);
  EXPECT_TRUE(RunUntil(loop, [&] { return sink.writes == 1; }));
  InIteration([&] { EXPECT_EQ(Say("again"), 0); });
  EXPECT_EQ(PeerGets(), "again");
}

TEST_F(SendBatchTest, AnEndWaitsForWhatTheKernelDidNotTake) {
  ConnectRawWithSmallBuffers();
  sockets.Watch(ours, &sink);
  const std::string all = SayUntilFull();
  InIteration([&] {
    EXPECT_EQ(sockets.ShutDownSending(ours), 0);
    EXPECT_NE(Say("too late"), 0);
  });
  EXPECT_EQ(PeerGetsAll(), all);
}

TEST_F(SendBatchTest, ABrokenConnectionIsNoticedAsThePeersEnd) {
  ConnectRaw();
  sockets.Watch(ours, &sink);
  RunUntilIdle(loop);
  InIteration([&] {
    Say("unheard");
    const linger reset{1, 0};
    setsockopt(raw, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    close(std::exchange(raw, -1));
  });
  EXPECT_TRUE(RunUntil(loop, [&] { return sink.closes == 1; }));
  EXPECT_EQ(sink.close_error, socket_error::kConnectionReset);
}

TEST_F(SendBatchTest, AConnectionThatIsKnownToBeBrokenTakesNothing) {
  ConnectRaw();
  sockets.Watch(ours, &sink);
  RunUntilIdle(loop);
  const linger reset{1, 0};
  setsockopt(raw, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  ASSERT_EQ(send(raw, "x", 1, 0), 1);
  RunUntilIdle(loop);
  close(std::exchange(raw, -1));
  RunUntilIdle(loop);
  InIteration([&] { EXPECT_NE(Say("unheard"), 0); });
}

}  // namespace
}  // namespace trabex
