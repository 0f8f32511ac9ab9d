#include "platform/event_loop.h"

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "base/error.h"
#include "platform/fd_watcher.h"
#include "support/fake_clock.h"
#include "support/held_port.h"
#include "support/loop_runner.h"
#include "support/system_socket.h"

namespace trabex {
namespace {

using std::chrono::milliseconds;

constexpr Milliseconds kNow{0};

// Appends its text to a trace when it is destroyed.
class Tombstone final : public DeferredDeletable {
 public:
  Tombstone(std::string& trace, char mark) : trace_(trace), mark_(mark) {}
  ~Tombstone() override { trace_ += mark_; }

 private:
  std::string& trace_;
  char mark_;
};

// Both ends of a connection.
class SocketPair {
 public:
  SocketPair() : far_(Transport::kTcp) {
    HeldPort port;
    SystemSocket listener = port.Listen(1);
    constexpr std::chrono::seconds kLimit{5};
    EXPECT_TRUE(far_.Connect({kIPv4Loopback, port.Port()}) && far_.Connected(kLimit));
    listener.AwaitReadable(kLimit);
    near_ = listener.Accept();
    EXPECT_TRUE(near_.IsOpen());
  }

  std::intptr_t Near() const { return near_.Native(); }
  void WriteFar() { ASSERT_EQ(far_.Send("x"), 1U); }
  void ReadNear() {
    char byte = 0;
    std::size_t count = 0;
    near_.Receive({&byte, 1}, count);
    ASSERT_EQ(count, 1U);
  }
  void CloseFar() { far_.Close(); }

 private:
  SystemSocket near_;
  SystemSocket far_;
};

class EventLoopTest : public testing::Test {
 protected:
  FakeClock clock;
  EventLoop loop{clock};
  std::string trace;
};

TEST_F(EventLoopTest, PostRunsInTheNextIterationInOrder) {
  loop.Post([this] {
    trace += 'a';
    loop.Post([this] { trace += 'c'; });
  });
  loop.Post([this] { trace += 'b'; });
  EXPECT_EQ(trace, "");
  EXPECT_TRUE(loop.RunOnce(kNow));
  EXPECT_EQ(trace, "ab");
  EXPECT_TRUE(loop.RunOnce(kNow));
  EXPECT_EQ(trace, "abc");
  EXPECT_FALSE(loop.RunOnce(kNow));
}

TEST_F(EventLoopTest, APostOutsideAnIterationKeepsItFromWaiting) {
  loop.Post([this] { trace += 'p'; });
  const auto start = std::chrono::steady_clock::now();
  loop.RunOnce(std::chrono::minutes(5));
  EXPECT_EQ(trace, "p");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::minutes(1));
}

TEST_F(EventLoopTest, IterationEndComesAfterEverythingElseAndBeforeTheLoopSleeps) {
  Timer timer(loop, milliseconds(10), [this] { trace += 't'; });
  timer.Enable();
  clock.Advance(milliseconds(10));
  loop.OnIterationEnd([this] { trace += 'e'; });
  loop.Post([this] {
    trace += 'p';
    loop.OnIterationEnd([this] { trace += 'f'; });
  });
  loop.RunOnce(kNow);
  EXPECT_EQ(trace, "ptef");
  loop.OnIterationEnd([this] { trace += 'g'; });
  loop.RunOnce(std::chrono::minutes(5));  // would outlast the test's limit if it slept
  EXPECT_EQ(trace, "ptefg");
}

TEST_F(EventLoopTest, IterationEndActionsMadeAtTheIterationEndRunInTheSameOneAndCannotHoldItUp) {
  loop.Post([this] {
    loop.OnIterationEnd([this] { loop.OnIterationEnd([this] { trace += 'n'; }); });
    loop.DeferredDelete(std::make_unique<Tombstone>(trace, 'r'));
  });
  loop.RunOnce(kNow);
  EXPECT_EQ(trace, "rn");

  int rounds = 0;
  std::function<void()> again = [&] {
    ++rounds;
    loop.OnIterationEnd(again);
  };
  loop.OnIterationEnd(again);
  loop.RunOnce(kNow);
  EXPECT_GT(rounds, 1);
  EXPECT_LT(rounds, 100);
}

TEST_F(EventLoopTest, DeferredDeletedObjectsOutliveTheCallsOfTheirIteration) {
  loop.Post([this] {
    loop.DeferredDelete(std::make_unique<Tombstone>(trace, 'r'));
    trace += 'a';
  });
  loop.Post([this] { trace += 'b'; });
  loop.RunOnce(kNow);
  EXPECT_EQ(trace, "abr");
}

TEST_F(EventLoopTest, DeferredDeletedOutsideAnIterationGoesAtTheNextIterationsEndOrWithTheLoop) {
  loop.DeferredDelete(std::make_unique<Tombstone>(trace, 'r'));
  EXPECT_EQ(trace, "");
  loop.RunOnce(std::chrono::minutes(5));
  EXPECT_EQ(trace, "r");
  {
    EventLoop other(clock);
    other.DeferredDelete(std::make_unique<Tombstone>(trace, 's'));
    other.DeferredDelete(nullptr);
    EXPECT_EQ(trace, "r");
  }
  EXPECT_EQ(trace, "rs");
}

TEST_F(EventLoopTest, QuitEndsRunAfterTheIteration) {
  loop.Post([this] {
    loop.Quit();
    trace += 'q';
    loop.Post([this] { trace += 'n'; });
  });
  loop.Post([this] { trace += 's'; });
  loop.Run();
  EXPECT_EQ(trace, "qs");
  // The next Run is a new one.
  loop.Post([this] { loop.Quit(); });
  loop.Run();
  EXPECT_EQ(trace, "qsn");
}

TEST_F(EventLoopTest, AQuitBeforeRunIsNotLost) {
  loop.Quit();
  loop.Run();
  loop.Post([this] { trace += 'p'; });
  loop.RunOnce(kNow);
  EXPECT_EQ(trace, "p");
}

TEST_F(EventLoopTest, RunsWithoutAnyLiveTimer) {
  Timer timer(loop, milliseconds(1), [this] { trace += 't'; });
  timer.Enable();
  timer.Disable();
  SocketPair pair;
  FdWatcher watch(loop, pair.Near(), [this](FdReadiness) { loop.Quit(); });
  watch.SetInterest({.readable = true});
  pair.WriteFar();
  loop.Run();
  EXPECT_EQ(trace, "");
}

TEST_F(EventLoopTest, ATimerTicksEveryIntervalWhileEnabled) {
  int ticks = 0;
  Timer timer(loop, milliseconds(100), [&] { ++ticks; });
  EXPECT_FALSE(timer.Enabled());
  clock.Advance(milliseconds(1000));
  loop.RunOnce(kNow);
  EXPECT_EQ(ticks, 0);
  timer.Enable();
  EXPECT_TRUE(timer.Enabled());
  clock.Advance(milliseconds(99));
  loop.RunOnce(kNow);
  EXPECT_EQ(ticks, 0);
  clock.Advance(milliseconds(1));
  loop.RunOnce(kNow);
  EXPECT_EQ(ticks, 1);
  clock.Advance(milliseconds(100));
  loop.RunOnce(kNow);
  EXPECT_EQ(ticks, 2);
  timer.Disable();
  clock.Advance(milliseconds(100));
  loop.RunOnce(kNow);
  EXPECT_EQ(ticks, 2);
}

TEST_F(EventLoopTest, MissedTicksAreNotMadeUpForAndLateOnesDoNotDrift) {
  int ticks = 0;
  Timer timer(loop, milliseconds(100), [&] { ++ticks; });
  timer.Enable();
  clock.Advance(milliseconds(950));
  loop.RunOnce(kNow);
  loop.RunOnce(kNow);
  EXPECT_EQ(ticks, 1);
  clock.Advance(milliseconds(100));
  loop.RunOnce(kNow);
  EXPECT_EQ(ticks, 2);
  clock.Advance(milliseconds(130));  // 30 late
  loop.RunOnce(kNow);
  EXPECT_EQ(ticks, 3);
  clock.Advance(milliseconds(70));
  loop.RunOnce(kNow);
  EXPECT_EQ(ticks, 4);
}

TEST_F(EventLoopTest, EnableAndSetIntervalBeginAWholeNewInterval) {
  int ticks = 0;
  Timer timer(loop, milliseconds(100), [&] { ++ticks; });
  timer.Enable();
  clock.Advance(milliseconds(60));
  timer.Enable();
  clock.Advance(milliseconds(60));
  loop.RunOnce(kNow);
  EXPECT_EQ(ticks, 0);
  timer.SetInterval(milliseconds(50));
  clock.Advance(milliseconds(49));
  loop.RunOnce(kNow);
  EXPECT_EQ(ticks, 0);
  clock.Advance(milliseconds(1));
  loop.RunOnce(kNow);
  EXPECT_EQ(ticks, 1);
  timer.Disable();
  timer.SetInterval(milliseconds(1));
  EXPECT_FALSE(timer.Enabled());
}

TEST_F(EventLoopTest, TimersTickInTheOrderOfTheirDeadlines) {
  std::vector<std::unique_ptr<Timer>> timers;
  for (const int after : {70, 10, 50, 30, 90, 20, 80, 40, 60}) {
    timers.push_back(std::make_unique<Timer>(
        loop, milliseconds(after), [this, after] { trace += static_cast<char>('0' + after / 10); }));
    timers.back()->Enable();
  }
  timers[2].reset();     // 50
  timers[5]->Disable();  // 20
  clock.Advance(milliseconds(100));
  loop.RunOnce(kNow);
  EXPECT_EQ(trace, "1346789");
}

TEST_F(EventLoopTest, ATimerStartedInATickWaitsForTheNextIteration) {
  std::unique_ptr<Timer> second;
  Timer first(loop, milliseconds(0), [&] {
    trace += '1';
    if (second) return;
    second = std::make_unique<Timer>(loop, milliseconds(0), [&] { trace += '2'; });
    second->Enable();
  });
  first.Enable();
  loop.RunOnce(kNow);
  EXPECT_EQ(trace, "1");
  loop.RunOnce(kNow);
  EXPECT_EQ(trace, "112");
}

TEST_F(EventLoopTest, ATimerMayBeDestroyedDisabledOrEnabledInItsOwnTick) {
  auto text = std::make_shared<std::string>("alive");
  auto timer = std::make_unique<Timer>(loop, milliseconds(10), nullptr);
  timer = std::make_unique<Timer>(loop, milliseconds(10), [&, text] {
    timer.reset();
    trace += *text;  // what the tick holds is still there
  });
  timer->Enable();
  clock.Advance(milliseconds(10));
  loop.RunOnce(kNow);
  EXPECT_EQ(trace, "alive");
  EXPECT_EQ(text.use_count(), 1);

  int ticks = 0;
  Timer once(loop, milliseconds(10), [&] {
    ++ticks;
    once.Disable();
  });
  once.Enable();
  clock.Advance(milliseconds(10));
  loop.RunOnce(kNow);
  clock.Advance(milliseconds(10));
  loop.RunOnce(kNow);
  EXPECT_EQ(ticks, 1);
  once.Enable();
  clock.Advance(milliseconds(10));
  loop.RunOnce(kNow);
  EXPECT_EQ(ticks, 2);
}

TEST_F(EventLoopTest, OneTickMayDestroyAnotherDueTimer) {
  std::unique_ptr<Timer> victim;
  Timer killer(loop, milliseconds(10), [&] { victim.reset(); });
  victim = std::make_unique<Timer>(loop, milliseconds(10), [&] { trace += 'v'; });
  killer.Enable();
  victim->Enable();
  clock.Advance(milliseconds(10));
  loop.RunOnce(kNow);
  EXPECT_EQ(trace, "");
}

TEST_F(EventLoopTest, WaitsForTheTimerOnTheMachinesClock) {
  SystemClock system;
  EventLoop real(system);
  int ticks = 0;
  Timer timer(real, milliseconds(20), [&] { ++ticks; });
  timer.Enable();
  const auto start = system.Monotonic();
  EXPECT_TRUE(RunUntil(real, [&] { return ticks > 0; }));
  EXPECT_GE(system.Monotonic() - start, milliseconds(20));
}

TEST_F(EventLoopTest, ABusyDescriptorAndABusyTimerAndPostsShareTheIterations) {
  SocketPair pair;
  int reads = 0;
  int ticks = 0;
  int posts = 0;
  FdWatcher watch(loop, pair.Near(), [&](FdReadiness) { ++reads; });  // never reads
  watch.SetInterest({.readable = true});
  pair.WriteFar();
  Timer timer(loop, milliseconds(0), [&] { ++ticks; });
  timer.Enable();
  std::function<void()> post = [&] {
    ++posts;
    loop.Post(post);
  };
  loop.Post(post);
  for (int i = 0; i < 10; ++i) loop.RunOnce(kNow);
  EXPECT_EQ(reads, 10);
  EXPECT_EQ(ticks, 10);
  EXPECT_EQ(posts, 10);
}

TEST_F(EventLoopTest, FdWatcherNotifiesOfWhatIsReadyAsLongAsItIs) {
  SocketPair pair;
  int readable = 0;
  int writable = 0;
  FdWatcher watch(loop, pair.Near(), [&](FdReadiness ready) {
    readable += ready.readable ? 1 : 0;
    writable += ready.writable ? 1 : 0;
  });
  EXPECT_FALSE(loop.RunOnce(kNow));  // nothing is watched for yet
  watch.SetInterest({.readable = true, .writable = true});
  loop.RunOnce(kNow);
  EXPECT_EQ(readable, 0);
  EXPECT_EQ(writable, 1);
  watch.SetInterest({.readable = true});
  EXPECT_FALSE(loop.RunOnce(kNow));
  pair.WriteFar();
  loop.RunOnce(kNow);
  loop.RunOnce(kNow);
  EXPECT_EQ(readable, 2);
  pair.ReadNear();
  EXPECT_FALSE(loop.RunOnce(kNow));
  EXPECT_EQ(writable, 1);
}

TEST_F(EventLoopTest, FdWatcherNotifiesOfAHangUpAsWhatIsWatchedForAndOfNothingWithoutInterest) {
  SocketPair pair;
  int readable = 0;
  int writable = 0;
  FdWatcher watch(loop, pair.Near(), [&](FdReadiness ready) {
    readable += ready.readable ? 1 : 0;
    writable += ready.writable ? 1 : 0;
  });
  watch.SetInterest({.readable = true});
  pair.CloseFar();
  loop.RunOnce(kNow);
  EXPECT_EQ(readable, 1);
  watch.SetInterest({.writable = true});
  loop.RunOnce(kNow);
  EXPECT_EQ(writable, 1);
  watch.SetInterest({});
  EXPECT_FALSE(loop.RunOnce(kNow));
  EXPECT_EQ(readable, 1);
}

TEST_F(EventLoopTest, FdWatcherMayBeDestroyedInsideItsOwnCallAndByAnotherOne) {
  SocketPair pair;
  auto text = std::make_shared<std::string>("alive");
  std::unique_ptr<FdWatcher> watch;
  watch = std::make_unique<FdWatcher>(loop, pair.Near(), [&, text](FdReadiness) {
    watch.reset();
    // The place of the destroyed one may be taken at once.
    SocketPair another;
    FdWatcher second(loop, another.Near(), [this](FdReadiness) { trace += "wrong"; });
    trace += *text;
  });
  watch->SetInterest({.readable = true});
  pair.WriteFar();
  loop.RunOnce(kNow);
  EXPECT_EQ(trace, "alive");
  EXPECT_EQ(text.use_count(), 1);
  EXPECT_FALSE(loop.RunOnce(kNow));

  // Two are ready in one iteration and each would destroy the other: exactly one is called.
  std::array<SocketPair, 2> pairs;
  std::array<std::unique_ptr<FdWatcher>, 2> watches;
  int calls = 0;
  for (std::size_t i = 0; i < 2; ++i) {
    watches[i] = std::make_unique<FdWatcher>(loop, pairs[i].Near(), [&, i](FdReadiness) {
      ++calls;
      watches[1 - i].reset();
    });
    watches[i]->SetInterest({.readable = true});
    pairs[i].WriteFar();
  }
  loop.RunOnce(kNow);
  EXPECT_EQ(calls, 1);
}

TEST_F(EventLoopTest, ALateEventDoesNotReachAWatchThatTookTheSamePlace) {
  std::array<SocketPair, 2> pairs;
  std::array<std::unique_ptr<FdWatcher>, 2> watches;
  SocketPair idle;
  std::unique_ptr<FdWatcher> newcomer;
  bool swapped = false;
  for (std::size_t i = 0; i < 2; ++i) {
    watches[i] = std::make_unique<FdWatcher>(loop, pairs[i].Near(), [&, i](FdReadiness) {
      if (swapped) return;
      swapped = true;
      watches[1 - i].reset();
      newcomer = std::make_unique<FdWatcher>(loop, idle.Near(), [this](FdReadiness) { trace += "wrong"; });
      newcomer->SetInterest({.readable = true});
    });
    watches[i]->SetInterest({.readable = true});
    pairs[i].WriteFar();
  }
  loop.RunOnce(kNow);
  loop.RunOnce(kNow);
  EXPECT_TRUE(swapped);
  EXPECT_EQ(trace, "");
}

// More than the system is asked about at a time.
TEST_F(EventLoopTest, WhatHasHappenedComesBeforeTimersThatAreDue) {
  constexpr std::size_t kReady = 600;
  std::size_t calls = 0;
  std::vector<SystemSocket> sockets;
  std::vector<std::unique_ptr<FdWatcher>> watches;
  for (std::size_t i = 0; i < kReady; ++i) {
    SystemSocket& socket = sockets.emplace_back(Transport::kUdp);
    ASSERT_TRUE(socket.Bind({kIPv4Loopback, 0}));
    socket.SendTo("x", socket.Local());
  }
  for (SystemSocket& socket : sockets) {
    watches.push_back(std::make_unique<FdWatcher>(loop, socket.Native(), [&](FdReadiness) {
      ++calls;
      std::array<char, 1> room{};
      std::size_t received = 0;
      Endpoint from;
      EXPECT_TRUE(socket.ReceiveFrom(room, received, from));
    }));
    watches.back()->SetInterest({.readable = true});
  }
  std::size_t calls_before_tick = 0;
  Timer timer(loop, std::chrono::seconds(1), [&] { calls_before_tick = calls; });
  timer.Enable();
  clock.Advance(std::chrono::minutes(1));
  RunUntilIdle(loop);
  EXPECT_EQ(calls, kReady);
  EXPECT_EQ(calls_before_tick, kReady);
}

TEST_F(EventLoopTest, AnErrorThatLeavesAHandlerIsADefectThatAReleaseSurvives) {
  loop.Post([] { throw Error(321, "a handler", "left it"); });
  loop.Post([this] { trace += 'n'; });
  EXPECT_DEBUG_DEATH(loop.RunOnce(kNow), "left an event handler");
}

TEST_F(EventLoopTest, RunningTheLoopFromInsideItIsADefect) {
  loop.Post([this] { loop.RunOnce(kNow); });
  EXPECT_DEBUG_DEATH(loop.RunOnce(kNow), "from inside");
}

TEST_F(EventLoopTest, FdWatcherOfSomethingThatCannotBeWatchedRaises) {
  FdWatcher watch(loop, 1 << 20, [](FdReadiness) {});
  try {
    watch.SetInterest({.readable = true});
    FAIL() << "no error";
  } catch (const Error& error) {
    EXPECT_EQ(error.Number(), 57);
    EXPECT_EQ(error.Description(), "Device I/O error");
  }
}

TEST_F(EventLoopTest, TurnsAreTimedWithoutTheirWait) {
  std::vector<std::chrono::nanoseconds> turns;
  loop.ObserveTurns([&](std::chrono::nanoseconds time) { turns.push_back(time); });
  loop.Post([this] { clock.Advance(Milliseconds(7)); });
  loop.OnIterationEnd([this] { clock.Advance(Milliseconds(2)); });
  loop.RunOnce(kNow);
  clock.Advance(Milliseconds(100));
  loop.RunOnce(kNow);
  loop.ObserveTurns({});
  loop.RunOnce(kNow);
  EXPECT_EQ(turns, (std::vector<std::chrono::nanoseconds>{Milliseconds(9), Milliseconds(0)}));
}

}  // namespace
}  // namespace trabex
