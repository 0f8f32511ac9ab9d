#include "platform/instance_lock.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/clock.h"
#include "platform/windows/loop/event_loop_impl.h"
#include "platform/windows/win.h"
#include "support/loop_runner.h"
#include "support/windows/denied_mutex.h"

namespace trabex {
namespace {

std::string OwnName(const char* what) {
  return "TrabexTest" + std::to_string(GetCurrentProcessId()) + what;
}

TEST(WindowsInstanceLock, IsHeldByOne) {
  SystemClock clock;
  EventLoop loop(clock);
  const std::string name = OwnName("one");
  EXPECT_FALSE(IsInstanceLocked(name));
  auto lock = TryLockInstance(loop, name, [] {});
  ASSERT_NE(lock, nullptr);
  EXPECT_TRUE(IsInstanceLocked(name));
  EXPECT_EQ(TryLockInstance(loop, name, [] {}), nullptr);
  EXPECT_NE(TryLockInstance(loop, name + "2", [] {}), nullptr) << "another port";
  EXPECT_EQ(OtherUserHolding(name), std::nullopt);
  lock.reset();
  EXPECT_FALSE(IsInstanceLocked(name));
  EXPECT_NE(TryLockInstance(loop, name, [] {}), nullptr);
}

// As another user's is, who shares it with nobody.
TEST(WindowsInstanceLock, OneThatMayNotBeOpenedIsHeld) {
  SystemClock clock;
  EventLoop loop(clock);
  const std::string name = OwnName("denied");
  const DeniedMutex mutex(name);
  EXPECT_EQ(TryLockInstance(loop, name, [] {}), nullptr);
  EXPECT_TRUE(IsInstanceLocked(name));
}

TEST(WindowsInstanceLock, ExitRequestIsForTheName) {
  SystemClock clock;
  EventLoop loop(clock);
  int asked = 0;
  int asked_other = 0;
  const std::string name = OwnName("exit");
  auto lock = TryLockInstance(loop, name, [&] { ++asked; });
  auto other = TryLockInstance(loop, name + "2", [&] { ++asked_other; });
  EXPECT_EQ(RequestExit(name), ExitRequest::kMade);
  EXPECT_EQ(asked, 0) << "only from the loop";
  EXPECT_TRUE(RunUntil(loop, [&] { return asked == 1; }));
  EXPECT_EQ(asked_other, 0);
  EXPECT_EQ(RequestExit(name + "3"), ExitRequest::kNoInstance);
  RunUntilIdle(loop);
  EXPECT_EQ(asked, 1);
  lock.reset();
  EXPECT_EQ(RequestExit(name), ExitRequest::kNoInstance);
  RunUntilIdle(loop);
  EXPECT_EQ(asked, 1);
}

TEST(WindowsInstanceLock, MayGoInsideItsOwnCall) {
  SystemClock clock;
  EventLoop loop(clock);
  std::unique_ptr<InstanceLock> lock;
  bool done = false;
  const std::string big(100, 'x');  // what the call holds must live on
  lock = TryLockInstance(loop, OwnName("gone"), [&, big] {
    lock.reset();
    done = big.size() == 100;
  });
  RequestExit(OwnName("gone"));
  EXPECT_TRUE(RunUntil(loop, [&] { return done; }));
}

}  // namespace
}  // namespace trabex
