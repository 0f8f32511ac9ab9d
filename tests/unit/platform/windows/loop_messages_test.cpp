// What the loop makes of messages, from its own threads and from strangers.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/windows/loop/thread_posts.h"
#include "platform/windows/sockets/ready_sockets.h"
#include "unit/platform/windows/loop_messages_fixture.h"

namespace trabex {
namespace {

// Nobody of the loop's sources.
class NoSource final : public EventSource {
 public:
  bool OnMessage(std::uint32_t, std::uint32_t, long, int) override { return false; }
  bool IsDue() const override { return false; }
  std::size_t CallDue() override { return 0; }
  void AskAnew() override {}
  void AskAll() override {}
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
      loop, [&] { return counter.reads == kConnections; }, std::chrono::minutes(5)));
}

// Its end is a hint too: what lies unread, and what comes later, is received.
TEST_F(LoopMessagesTest, OfAStrangerEndNoConnection) {
  Counter counter;
  Pair pair = Connect(counter);
  RunUntilIdle(loop);
  ASSERT_EQ(pair.peer.Send("unread"), 6U);
  ASSERT_TRUE(RunUntil(loop, [&] { return counter.reads == 1; }));
  counter.events = 0;
  const auto tell_ends = [&] {
    for (UINT number = kFirst; number < kFirst + 4; ++number) {
      for (WPARAM socket = 0; socket < 1200; socket += 4) {
        PostMessageW(Window(), number, socket, WSAMAKESELECTREPLY(FD_CLOSE, WSAECONNRESET));
      }
    }
    RunUntilIdle(loop);
    while (PeekedAny()) loop.RunOnce(Milliseconds{0});
  };
  tell_ends();
  EXPECT_FALSE(sockets.PeerEnded(pair.ours));
  EXPECT_EQ(counter.events, 0);
  std::array<char, 100> room{};
  std::size_t received = 0;
  EXPECT_EQ(sockets.Receive(pair.ours, room, received), 0);
  EXPECT_EQ(received, 6U);
  tell_ends();
  EXPECT_FALSE(sockets.PeerEnded(pair.ours));
  EXPECT_EQ(counter.closes, 0);
  // The true end is told as it is.
  ASSERT_EQ(pair.peer.Send("more"), 4U);
  ASSERT_TRUE(RunUntil(loop, [&] { return counter.reads == 2; }));
  EXPECT_EQ(sockets.Receive(pair.ours, room, received), 0);
  EXPECT_EQ(received, 4U);
  tell_ends();
  pair.peer.ShutDownSending();
  EXPECT_TRUE(RunUntil(loop, [&] { return counter.closes == 1; }));
  EXPECT_EQ(counter.last_error, 0);
  EXPECT_TRUE(sockets.PeerEnded(pair.ours));
}

// The system gives the handle of a closed socket to the next one.
TEST_F(LoopMessagesTest, OfAClosedSocketDoNotReachTheNext) {
  Counter of_closed;
  Counter of_next;
  for (int i = 0; i < 20; ++i) {
    Pair closed = Connect(of_closed);
    RunUntilIdle(loop);
    of_closed.events = 0;
    ASSERT_EQ(closed.peer.Send("late"), 4U);
    Arrived(closed.ours, 4);
    ASSERT_TRUE(PeekedAny());  // its message is under way
    ASSERT_EQ(sockets.Close(closed.ours), 0);
    const Pair next = Connect(of_next);
    RunUntilIdle(loop);
    EXPECT_EQ(of_closed.events, 0);
    EXPECT_EQ(of_next.reads, 0);
  }
}

// An accepted socket has all that its listener has, at first.
TEST_F(LoopMessagesTest, OfAnAcceptedSocketComeOnlyWhenItIsWatched) {
  Counter counter;
  Pair pair = Connect(counter, false);
  RunUntilIdle(loop);
  DropMessages();
  ASSERT_EQ(pair.peer.Send("x"), 1U);
  Arrived(pair.ours, 1);
  EXPECT_EQ(DropMessages(), 0);
  ASSERT_EQ(sockets.Watch(pair.ours, &counter), 0);
  EXPECT_TRUE(RunUntil(loop, [&] { return counter.reads == 1; }));
}

TEST_F(LoopMessagesTest, HaveNumbersUntilAllAreGivenOut) {
  SocketHandle datagrams;
  SocketHandle listener;
  SocketHandle client;
  ASSERT_EQ(sockets.Open(Transport::kUdp, AddressFamily::kIPv4, datagrams), 0);
  ASSERT_EQ(sockets.Open(Transport::kTcp, AddressFamily::kIPv4, listener), 0);
  ASSERT_EQ(sockets.BindExclusively(listener, {kIPv4Loopback, 0}), 0);
  ASSERT_EQ(sockets.Open(Transport::kTcp, AddressFamily::kIPv4, client), 0);
  NoSource source;
  const SystemSocket other(Transport::kUdp);
  const MessageTarget target{&source, static_cast<SOCKET>(other.Native()), 1, 1};
  EventLoop::Impl& impl = loop.GetImpl();
  impl.AddSource(source);
  UINT number = 0;
  UINT last = 0;
  int result = 0;
  while ((result = impl.Select(target, FD_READ, number)) == 0) last = number;
  EXPECT_EQ(result, socket_error::kNoBufferSpace);
  Counter counter;
  EXPECT_EQ(sockets.Watch(datagrams, &counter), socket_error::kNoBufferSpace);
  EXPECT_EQ(sockets.Listen(listener, 0), socket_error::kNoBufferSpace);
  EXPECT_EQ(sockets.Connect(client, Address()), socket_error::kNoBufferSpace);
  impl.Deselect(target.socket, last, false);
  EXPECT_EQ(sockets.Watch(datagrams, &counter), 0);
  EXPECT_EQ(sockets.Connect(client, Address()), socket_error::kNoBufferSpace);
  impl.RemoveSource(source);
  const int connecting = sockets.Connect(client, Address());
  EXPECT_TRUE(connecting == 0 || connecting == socket_error::kWouldBlock) << connecting;
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

TEST_F(LoopMessagesTest, ComeToAHiddenWindowThatBroadcastsReach) {
  EXPECT_EQ(GetAncestor(Window(), GA_PARENT), GetDesktopWindow());
  EXPECT_EQ(IsWindowVisible(Window()), FALSE);
  const UINT message = RegisterWindowMessageW(L"Trabex.LoopMessagesTest");
  int calls = 0;
  loop.GetImpl().HandleMessage(message, [&](WPARAM, LPARAM) {
    ++calls;
    return LRESULT{0};
  });
  PostMessageW(HWND_BROADCAST, message, 0, 0);
  EXPECT_TRUE(RunUntil(loop, [&] { return calls > 0; }));
}

// Those that wait longest come first, and timers and posts come between.
TEST_F(LoopMessagesTest, AreBoundedInAnIteration) {
  constexpr UINT kMessage = WM_USER + 200;
  constexpr int kMax = EventLoop::Impl::kMaxMessagesPerIteration;
  int calls = 0;
  loop.GetImpl().HandleMessage(kMessage, [&](WPARAM, LPARAM) {
    ++calls;
    return LRESULT{0};
  });
  for (int i = 0; i < 3 * kMax; ++i) PostMessageW(Window(), kMessage, 0, 0);
  bool posted = false;
  for (int last = 0; calls < 3 * kMax; last = calls) {
    loop.Post([&] { posted = true; });
    ASSERT_TRUE(loop.RunOnce(Milliseconds{5000}));
    ASSERT_LE(calls - last, kMax);
    ASSERT_TRUE(posted);
    posted = false;
  }
}

// Windows of others may send and post to all without end.
TEST_F(LoopMessagesTest, InAStormHoldUpNeitherSocketsNorTimers) {
  Counter counter;
  Pair pair = Connect(counter);
  RunUntilIdle(loop);
  std::atomic<bool> over{false};
  const HWND window = Window();
  std::thread sender([&] {
    while (!over) SendMessageTimeoutW(window, WM_SETTINGCHANGE, 0, 0, SMTO_BLOCK, 100, nullptr);
  });
  std::thread poster([&] {
    for (int i = 0; !over; ++i) {
      PostMessageW(window, WM_USER + 100, 0, 0);
      if (i % 10 == 0) Sleep(1);
    }
  });
  int ticks = 0;
  Timer timer(loop, Milliseconds{1}, [&] { ++ticks; });
  timer.Enable();
  for (int i = 1; i <= 20; ++i) {
    ASSERT_EQ(pair.peer.Send("x"), 1U);
    const int before = ticks;
    EXPECT_TRUE(RunUntil(loop, [&] { return counter.reads == i && ticks > before; }));
    char byte = 0;
    std::size_t received = 0;
    EXPECT_EQ(sockets.Receive(pair.ours, {&byte, 1}, received), 0);
  }
  over = true;
  // The one that sends may wait for the loop.
  std::atomic<bool> ended{false};
  std::thread joiner([&] {
    sender.join();
    poster.join();
    ended = true;
  });
  EXPECT_TRUE(RunUntil(loop, [&] { return ended.load(); }));
  joiner.join();
}

// The system drops what comes to a full queue; taking the messages out is the same.
TEST_F(LoopMessagesTest, ThatWereDroppedAreMadeUpForWithinBounds) {
  constexpr int kConnections = 600;
  constexpr int kMaxAsked = 4 * static_cast<int>(ReadySockets::kMax);
  static_assert(kConnections > 2 * kMaxAsked);
  Counter counter;
  std::vector<Pair> pairs;
  for (int i = 0; i < kConnections; ++i) pairs.push_back(Connect(counter));
  RunUntilIdle(loop);
  ASSERT_EQ(counter.reads, 0);
  for (Pair& pair : pairs) ASSERT_EQ(pair.peer.Send("x"), 1U);
  for (const Pair& pair : pairs) Arrived(pair.ours, 1);
  for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
       std::chrono::steady_clock::now() < end && DropMessages() > 0;) {
    Sleep(10);
  }
  int most = 0;
  for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
       counter.reads < kConnections && std::chrono::steady_clock::now() < end;) {
    const int before = counter.reads;
    loop.RunOnce(Milliseconds{100});
    most = std::max(most, counter.reads - before);
  }
  EXPECT_EQ(counter.reads, kConnections);
  EXPECT_GT(most, 0);
  EXPECT_LE(most, kMaxAsked);
}

// They are sent by another thread of the process, so the first look behind a standstill may find none.
TEST_F(LoopMessagesTest, ThatAStandstillHeldUpDoNotLetTimersComeBeforeWhatHasHappened) {
  constexpr int kConnections = 300;
  Counter counter;
  std::vector<Pair> pairs;
  for (int i = 0; i < kConnections; ++i) pairs.push_back(Connect(counter));
  int reads_before_tick = -1;
  Timer timer(loop, std::chrono::hours(1), [&] { reads_before_tick = counter.reads; });
  timer.Enable();
  RunUntilIdle(loop);
  // One is heard of shortly before.
  ASSERT_EQ(pairs[0].peer.Send("x"), 1U);
  ASSERT_TRUE(RunUntil(loop, [&] { return counter.reads == 1; }));
  std::array<char, 1> room{};
  std::size_t received = 0;
  ASSERT_EQ(sockets.Receive(pairs[0].ours, room, received), 0);
  for (Pair& pair : pairs) ASSERT_EQ(pair.peer.Send("x"), 1U);
  for (const Pair& pair : pairs) Arrived(pair.ours, 1);
  DropMessages();
  clock.Skip(std::chrono::hours(2));
  EXPECT_TRUE(RunUntil(loop, [&] { return reads_before_tick >= 0; }));
  EXPECT_EQ(reads_before_tick, 1 + kConnections);
}

TEST_F(LoopMessagesTest, WithoutEndDoNotKeepTimersFromBeingCalled) {
  constexpr UINT kMessage = WM_USER + 200;
  constexpr int kMax = EventLoop::Impl::kMaxMessagesPerIteration;
  loop.GetImpl().HandleMessage(kMessage, [&](WPARAM, LPARAM) {
    PostMessageW(Window(), kMessage, 0, 0);
    return LRESULT{0};
  });
  for (int i = 0; i < 2 * kMax; ++i) PostMessageW(Window(), kMessage, 0, 0);
  int ticks = 0;
  Timer timer(loop, Milliseconds{0}, [&] { ++ticks; });
  timer.Enable();
  constexpr int kMaxPartial = EventLoop::Impl::kMaxPartialIterations;
  for (int i = 0; i < kMaxPartial; ++i) ASSERT_TRUE(loop.RunOnce(Milliseconds{0}));
  EXPECT_EQ(ticks, 0);
  EXPECT_TRUE(loop.RunOnce(Milliseconds{0}));
  EXPECT_EQ(ticks, 1);
}

TEST_F(LoopMessagesTest, OfAThreadMayBeDropped) {
  const std::shared_ptr<ThreadPosts> posts = ThreadPostsOf(loop);
  bool called = false;
  std::thread poster([&] { posts->Post([&] { called = true; }); });
  poster.join();
  MSG message{};
  while (PeekMessageW(&message, Window(), 0, 0, PM_REMOVE) != 0) continue;
  EXPECT_TRUE(RunUntil(loop, [&] { return called; }));
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
