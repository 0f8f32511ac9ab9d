#include "platform/end_request.h"

#include <gtest/gtest.h>
#include <signal.h>

#include "platform/clock.h"
#include "support/child_process.h"
#include "support/default_hang_up.h"
#include "support/fake_clock.h"
#include "support/loop_runner.h"

namespace trabex {
namespace {

TEST(EndRequest, EverySignalOfTheEndIsReported) {
  const DefaultHangUp hang_up;
  FakeClock clock;
  EventLoop loop(clock);
  int requests = 0;
  const auto watch = WatchEndRequest(loop, [&] { ++requests; });
  for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGTERM}) {
    const int before = requests;
    ASSERT_EQ(raise(number), 0);
    EXPECT_EQ(requests, before) << "only from the loop";
    EXPECT_TRUE(RunUntil(loop, [&] { return requests > before; })) << number;
    EXPECT_EQ(requests, before + 1) << number;
  }
  RunUntilIdle(loop);
  EXPECT_EQ(requests, 4);
}

TEST(EndRequest, MayGoInsideItsOwnCall) {
  FakeClock clock;
  EventLoop loop(clock);
  std::unique_ptr<EndRequest> watch;
  bool done = false;
  const std::string big(100, 'x');  // what the call holds must live on
  watch = WatchEndRequest(loop, [&, big] {
    watch.reset();
    done = big.size() == 100;
  });
  raise(SIGTERM);
  EXPECT_TRUE(RunUntil(loop, [&] { return done; }));
}

TEST(EndRequest, SignalsActAsBeforeOnceItIsGone) {
  sigset_t before;
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  FakeClock clock;
  EventLoop loop(clock);
  WatchEndRequest(loop, [] {}).reset();
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGUSR1}) {
    EXPECT_EQ(sigismember(&before, number), sigismember(&after, number)) << number;
  }
  ChildProcess child([] {
    FakeClock childs_clock;
    EventLoop childs_loop(childs_clock);
    WatchEndRequest(childs_loop, [] {}).reset();
    raise(SIGTERM);
    return 0;
  });
  EXPECT_EQ(child.Wait(), -SIGTERM);
}

// A second SIGTERM while the program is shutting down for the first must not turn its orderly end into death
// by signal.
TEST(EndRequest, SignalThatCameMeanwhileDoesNotStrikeAtTheEnd) {
  ChildProcess child([] {
    FakeClock clock;
    EventLoop loop(clock);
    auto watch = WatchEndRequest(loop, [] {});
    raise(SIGTERM);
    raise(SIGINT);
    watch.reset();
    return 7;
  });
  EXPECT_EQ(child.Wait(), 7);
}

TEST(EndRequest, IgnoredHangUpStaysIgnored) {
  ChildProcess child([] {
    signal(SIGHUP, SIG_IGN);
    FakeClock clock;
    EventLoop loop(clock);
    int requests = 0;
    const auto watch = WatchEndRequest(loop, [&] { ++requests; });
    raise(SIGHUP);
    RunUntilIdle(loop);
    if (requests != 0) return 1;
    raise(SIGTERM);
    return RunUntil(loop, [&] { return requests == 1; }) ? 0 : 2;
  });
  EXPECT_EQ(child.Wait(), 0);
}

}  // namespace
}  // namespace trabex
