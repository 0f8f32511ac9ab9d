// Runs of the program with signals, and beside another user's.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "platform/instance_lock.h"
#include "support/child_process.h"
#include "support/linux/waiting_signals.h"
#include "unit/app/start_up_fixture.h"

namespace trabex {
namespace {

using testing::ElementsAre;

TEST_F(StartUpTest, SignalsOfBeforeTheStartCount) {
  WriteIni("");
  for (const int number : {SIGTERM, SIGINT, SIGQUIT}) {
    const WaitingSignals end({SIGUSR1, number});
    EXPECT_EQ(Run({"/HI", "/L", folder_ / std::to_string(number)}), 0) << number;
    EXPECT_THAT(LogLines(std::to_string(number)),
                ElementsAre(kStarted, ListenLine(), "Log file reopened.", kStopped))
        << number;
  }
}

TEST_F(StartUpTest, NameTakenByAnotherUserIsNoSecondInstance) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become somebody else";
  WriteIni("");
  Notice locked;
  ChildProcess stranger([&] {
    if (setuid(54321) != 0) return 1;
    EventLoop loop(clock_);
    const std::unique_ptr<InstanceLock> lock = TryLockInstance(loop, InstanceName(port_), [] {});
    locked.Give();
    for (;;) pause();
    return 0;
  });
  locked.Await();
  const std::string line =
      "A process of another user (uid 54321) holds the name of the instance listening on the same port; no "
      "instance of our own user runs.";
  EXPECT_EQ(Run({"/HI"}), 1);
  EXPECT_EQ(err_.str(), "Trabex: " + line + "\n");
  EXPECT_THAT(LogLines(), ElementsAre(line));
  EXPECT_EQ(Run({"/X"}), 0);
  EXPECT_EQ(out_.str() + err_.str(), "");
}

}  // namespace
}  // namespace trabex
