#include "platform/system_requests.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/linux/process/signals.h"
#include "support/child_process.h"
#include "support/fake_clock.h"
#include "support/linux/default_hang_up.h"
#include "support/loop_runner.h"

namespace trabex {
namespace {

// Writes down what was asked for.
SystemRequestEvents NotedIn(std::vector<std::string>& asked) {
  return {.end = [&asked] { asked.emplace_back("end"); },
          .hang_up = [&asked] { asked.emplace_back("hang up"); },
          .reopen_log = [&asked] { asked.emplace_back("reopen log"); }};
}

TEST(SystemRequests, EverySignalIsReportedAsWhatItMeans) {
  const DefaultHangUp hang_up;
  FakeClock clock;
  EventLoop loop(clock);
  std::vector<std::string> asked;
  const auto watch = WatchSystemRequests(loop, NotedIn(asked));
  const struct {
    int number;
    const char* meaning;
  } rows[] = {{SIGTERM, "end"},        {SIGINT, "end"},         {SIGQUIT, "end"}, {SIGHUP, "hang up"},
              {SIGUSR1, "reopen log"}, {SIGUSR1, "reopen log"}, {SIGTERM, "end"}};
  std::vector<std::string> wanted;
  for (const auto& row : rows) {
    ASSERT_EQ(raise(row.number), 0);
    EXPECT_EQ(asked, wanted) << "only from the loop";
    wanted.emplace_back(row.meaning);
    EXPECT_TRUE(RunUntil(loop, [&] { return asked.size() == wanted.size(); })) << row.number;
    EXPECT_EQ(asked, wanted);
  }
  RunUntilIdle(loop);
  EXPECT_EQ(asked, wanted);
}

TEST(SystemRequests, OfOneMomentAreReportedInTheOrderThatKeepsTheLog) {
  const DefaultHangUp hang_up;
  FakeClock clock;
  EventLoop loop(clock);
  std::vector<std::string> asked;
  const auto watch = WatchSystemRequests(loop, NotedIn(asked));
  for (const int number : {SIGHUP, SIGTERM, SIGQUIT, SIGUSR1, SIGTERM, SIGUSR1}) raise(number);
  EXPECT_TRUE(RunUntil(loop, [&] { return asked.size() == 3; }));
  RunUntilIdle(loop);
  EXPECT_EQ(asked, (std::vector<std::string>{"reopen log", "end", "hang up"}));
}

TEST(SystemRequests, HandlersMayBeEmpty) {
  const DefaultHangUp hang_up;
  FakeClock clock;
  EventLoop loop(clock);
  const auto watch = WatchSystemRequests(loop, {});
  for (const int number : kRequestSignals) raise(number);
  RunUntilIdle(loop);
}

TEST(SystemRequests, MayGoInsideTheirOwnCall) {
  FakeClock clock;
  EventLoop loop(clock);
  std::unique_ptr<SystemRequests> watch;
  bool done = false;
  bool ended = false;
  const std::string big(100, 'x');  // what the call holds must live on
  watch = WatchSystemRequests(loop, {.end = [&] { ended = true; },
                                     .hang_up = {},
                                     .reopen_log =
                                         [&, big] {
                                           watch.reset();
                                           done = big.size() == 100;
                                         }});
  raise(SIGUSR1);
  raise(SIGTERM);
  EXPECT_TRUE(RunUntil(loop, [&] { return done; }));
  EXPECT_FALSE(ended) << "nothing is notified once it is gone";
}

TEST(SystemRequests, SignalsActAsBeforeOnceItIsGone) {
  sigset_t before;
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  FakeClock clock;
  EventLoop loop(clock);
  WatchSystemRequests(loop, {}).reset();
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  for (int number = 1; number < NSIG; ++number) {
    EXPECT_EQ(sigismember(&before, number), sigismember(&after, number)) << number;
  }
  ChildProcess child([] {
    FakeClock childs_clock;
    EventLoop childs_loop(childs_clock);
    WatchSystemRequests(childs_loop, {}).reset();
    raise(SIGTERM);
    return 0;
  });
  EXPECT_EQ(child.Wait(), -SIGTERM);
}

// A second SIGTERM while the program is shutting down for the first must not turn its orderly end into death
// by signal.
TEST(SystemRequests, SignalThatCameMeanwhileDoesNotStrikeAtTheEnd) {
  ChildProcess child([] {
    FakeClock clock;
    EventLoop loop(clock);
    auto watch = WatchSystemRequests(loop, {});
    for (const int number : {SIGTERM, SIGINT, SIGQUIT, SIGUSR1}) raise(number);
    watch.reset();
    return 7;
  });
  EXPECT_EQ(child.Wait(), 7);
}

TEST(SystemRequests, IgnoredHangUpStaysIgnored) {
  ChildProcess child([] {
    signal(SIGHUP, SIG_IGN);
    if (!HangUpIsIgnored()) return 3;
    FakeClock clock;
    EventLoop loop(clock);
    std::vector<std::string> asked;
    const auto watch = WatchSystemRequests(loop, NotedIn(asked));
    raise(SIGHUP);
    RunUntilIdle(loop);
    if (!asked.empty()) return 1;
    raise(SIGTERM);
    return RunUntil(loop, [&] { return asked == std::vector<std::string>{"end"}; }) ? 0 : 2;
  });
  EXPECT_EQ(child.Wait(), 0);
  const DefaultHangUp hang_up;
  EXPECT_FALSE(HangUpIsIgnored());
}

}  // namespace
}  // namespace trabex
