// What the loop makes of messages, from its own threads and from strangers.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/error.h"
#include "platform/clock.h"
#include "platform/event_loop.h"
#include "platform/sockets.h"
#include "platform/windows/loop/event_loop_impl.h"
#include "platform/windows/loop/message_numbers.h"
#include "platform/windows/loop/thread_posts.h"
#include "support/held_port.h"
#include "support/loop_runner.h"
#include "support/system_socket.h"

namespace trabex {
namespace {

// Counts what it is notified of.
class Counter final : public SocketSink {
 public:
  void OnSocketEvent(SocketHandle /*socket*/, SocketEvent event, int /*error*/) override {
    ++events;
    reads += event == SocketEvent::kRead ? 1 : 0;
  }

  int events = 0;
  int reads = 0;
};

// Nobody of the loop's sources.
class NoSource final : public EventSource {
 public:
  bool OnMessage(std::uint32_t, std::uint32_t, long, int) override { return false; }
  bool IsDue() const override { return false; }
  std::size_t CallDue() override { return 0; }
  void AskAnew() override {}
};

TEST(MessageNumbersTest, AreGivenOutFirstInFirstOut) {
  MessageNumbers numbers;
  NoSource source;
  const MessageTarget target{&source, 4, 1, 1};
  const UINT first = numbers.Take(target);
  EXPECT_EQ(first, MessageNumbers::kFirst);
  numbers.GiveBack(first);
  for (std::size_t i = 1; i < MessageNumbers::kCount; ++i) {
    ASSERT_EQ(numbers.Take(target), first + static_cast<UINT>(i));
  }
  EXPECT_EQ(numbers.Take(target), first);
  EXPECT_EQ(numbers.Take(target), 0U);  // all are given out
  numbers.GiveBack(first + 7);
  numbers.GiveBack(first + 3);
  EXPECT_EQ(numbers.Take(target), first + 7);
  EXPECT_EQ(numbers.Take(target), first + 3);
  numbers.Forget(source);
  for (std::size_t i = 0; i < MessageNumbers::kCount; ++i) ASSERT_NE(numbers.Take(target), 0U);
}

TEST(MessageNumbersTest, AreOfTheirSocketOnly) {
  MessageNumbers numbers;
  NoSource source;
  const UINT number = numbers.Take({&source, 8, 5, 6});
  const MessageTarget* const found = numbers.Find(number, 8);
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->index, 5U);
  EXPECT_EQ(found->generation, 6U);
  EXPECT_EQ(numbers.Find(number, 12), nullptr);
  EXPECT_EQ(numbers.Find(number + 1, 8), nullptr);
  EXPECT_EQ(numbers.Find(MessageNumbers::kFirst - 1, 8), nullptr);
  EXPECT_EQ(numbers.Find(MessageNumbers::kFirst + static_cast<UINT>(MessageNumbers::kCount), 8), nullptr);
  numbers.GiveBack(number);
  EXPECT_EQ(numbers.Find(number, 8), nullptr);
}

class LoopMessagesTest : public testing::Test {
 protected:
  // Two ends of a connection: one that is watched, and the peer's.
  struct Pair {
    SocketHandle ours;
    SystemSocket peer;
  };
  Pair Connect(SocketSink& sink) {
    constexpr std::chrono::seconds kLimit{5};
    Pair pair{{}, SystemSocket(Transport::kTcp)};
    EXPECT_TRUE(pair.peer.Connect(address_) && pair.peer.Connected(kLimit));
    int result = socket_error::kWouldBlock;
    RunUntil(loop,
             [&] { return (result = sockets.Accept(listener_, pair.ours)) != socket_error::kWouldBlock; });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(sockets.Watch(pair.ours, &sink), 0);
    return pair;
  }
  HWND Window() { return loop.GetImpl().Window(); }

  SystemClock clock;
  EventLoop loop{clock};
  Sockets sockets{loop};

 private:
  void SetUp() override {
    ASSERT_EQ(sockets.Open(Transport::kTcp, AddressFamily::kIPv4, listener_), 0);
    ASSERT_EQ(sockets.BindExclusively(listener_, {kIPv4Loopback, 0}), 0);
    ASSERT_EQ(sockets.Listen(listener_, 0), 0);
    ASSERT_EQ(sockets.LocalEndpoint(listener_, address_), 0);
  }

  SocketHandle listener_;
  Endpoint address_;
};

TEST_F(LoopMessagesTest, OfAStrangerDoNothing) {
  Counter counter;
  const Pair pair = Connect(counter);
  RunUntilIdle(loop);
  counter.events = 0;
  // Each number that is given out, for each handle that the socket may have.
  for (UINT number = MessageNumbers::kFirst; number < MessageNumbers::kFirst + 4; ++number) {
    for (WPARAM socket = 0; socket < 1200; socket += 4) {
      for (const int event : {FD_READ, FD_WRITE, FD_ACCEPT, FD_CONNECT, FD_CLOSE}) {
        PostMessageW(Window(), number, socket, WSAMAKESELECTREPLY(event, WSAECONNRESET));
      }
    }
  }
  PostMessageW(Window(), WM_CLOSE, 0, 0);
  PostMessageW(Window(), WM_QUIT, 0, 0);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(loop.RunOnce(Milliseconds{300}));
  EXPECT_GE(std::chrono::steady_clock::now() - start, Milliseconds{300});
  EXPECT_EQ(counter.events, 0);
  EXPECT_FALSE(sockets.PeerEnded(pair.ours));
  EXPECT_NE(IsWindow(Window()), 0);
}

TEST_F(LoopMessagesTest, ThatFillTheQueueHideNothingForLong) {
  Counter counter;
  Pair pair = Connect(counter);
  RunUntilIdle(loop);
  for (int i = 0; i < 20000; ++i) PostMessageW(Window(), WM_USER + 100, 0, 0);
  EXPECT_EQ(pair.peer.Send("x"), 1U);
  EXPECT_TRUE(RunUntil(loop, [&] { return counter.reads == 1; }));
}

TEST_F(LoopMessagesTest, OfFourThousandSocketsAllArrive) {
  constexpr int kConnections = 2000;
  Counter counter;
  std::vector<Pair> pairs;
  for (int i = 0; i < kConnections; ++i) pairs.push_back(Connect(counter));
  RunUntilIdle(loop);
  counter.reads = 0;
  for (Pair& pair : pairs) ASSERT_EQ(pair.peer.Send("x"), 1U);
  EXPECT_TRUE(RunUntil(
      loop, [&] { return counter.reads == kConnections; }, std::chrono::seconds(60)));
}

TEST_F(LoopMessagesTest, ReachTheirHandlerPostedOrSent) {
  constexpr UINT kMessage = WM_USER + 200;
  std::string trace;
  loop.GetImpl().HandleMessage(kMessage, [&](WPARAM w, LPARAM l) -> LRESULT {
    trace += std::to_string(w) + "," + std::to_string(l) + " ";
    return 9;
  });
  PostMessageW(Window(), kMessage, 1, 2);
  EXPECT_TRUE(loop.RunOnce(Milliseconds{5000}));
  EXPECT_EQ(trace, "1,2 ");
  LRESULT result = 0;
  std::thread sender([&] { result = SendMessageW(Window(), kMessage, 3, 4); });
  EXPECT_TRUE(RunUntil(loop, [&] { return trace == "1,2 3,4 "; }));
  sender.join();
  EXPECT_EQ(result, 9);
  loop.GetImpl().HandleMessage(kMessage, nullptr);
  PostMessageW(Window(), kMessage, 5, 6);
  EXPECT_FALSE(loop.RunOnce(Milliseconds{0}));
  EXPECT_EQ(trace, "1,2 3,4 ");
}

TEST(ThreadPostsTest, AreCalledOnTheLoopsThreadInOrderAndNotBehindItsEnd) {
  SystemClock clock;
  auto loop = std::make_unique<EventLoop>(clock);
  const std::shared_ptr<ThreadPosts> posts = ThreadPostsOf(*loop);
  std::vector<int> called;
  std::thread::id thread;
  std::thread poster([&] {
    for (int i = 0; i < 1000; ++i) {
      posts->Post([&, i] {
        called.push_back(i);
        thread = std::this_thread::get_id();
      });
    }
  });
  EXPECT_TRUE(RunUntil(*loop, [&] { return called.size() == 1000; }));
  poster.join();
  EXPECT_EQ(thread, std::this_thread::get_id());
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(called[static_cast<std::size_t>(i)], i);
  posts->Post([&] { called.clear(); });  // dropped with the loop
  loop.reset();
  posts->Post([&] { called.clear(); });
  EXPECT_EQ(called.size(), 1000U);
}

}  // namespace
}  // namespace trabex
