#include "platform/system_requests.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

#include "platform/clock.h"
#include "platform/windows/loop/event_loop_impl.h"
#include "platform/windows/win.h"
#include "support/loop_runner.h"

namespace trabex {
namespace {

class WindowRequestsTest : public testing::Test {
 protected:
  void WatchAll() {
    watch_ = WatchSystemRequests(
        loop_,
        {.end = [this] { ++ends_; }, .hang_up = [this] { ++others_; }, .reopen_log = [this] { ++others_; }});
  }
  void Post(UINT message, WPARAM w) { PostMessageW(loop_.GetImpl().Window(), message, w, 0); }

  SystemClock clock_;
  EventLoop loop_{clock_};
  std::unique_ptr<SystemRequests> watch_;
  int ends_ = 0;
  int others_ = 0;
};

TEST_F(WindowRequestsTest, EndOfTheSessionEndsTheProgram) {
  WatchAll();
  Post(WM_QUERYENDSESSION, 0);
  Post(WM_ENDSESSION, FALSE);  // somebody else has said no
  RunUntilIdle(loop_);
  EXPECT_EQ(ends_, 0);
  Post(WM_ENDSESSION, TRUE);
  EXPECT_TRUE(RunUntil(loop_, [&] { return ends_ == 1; }));
  Post(WM_CLOSE, 0);
  EXPECT_TRUE(RunUntil(loop_, [&] { return ends_ == 2; }));
  EXPECT_EQ(others_, 0);
}

// As the system does: who sends it waits, and gets the answer when the end is done.
TEST_F(WindowRequestsTest, EndIsDoneWhenTheSystemGetsItsAnswer) {
  WatchAll();
  LRESULT may_end = -1;
  int ends_seen = -1;
  std::atomic<bool> answered{false};
  std::thread system([&, window = loop_.GetImpl().Window()] {
    may_end = SendMessageW(window, WM_QUERYENDSESSION, 0, 0);
    SendMessageW(window, WM_ENDSESSION, TRUE, 0);
    ends_seen = ends_;
    answered = true;
  });
  EXPECT_TRUE(RunUntil(loop_, [&] { return answered.load(); }));
  system.join();
  EXPECT_EQ(may_end, TRUE);
  EXPECT_EQ(ends_seen, 1);
}

TEST_F(WindowRequestsTest, NobodyIsToldOnceItIsGone) {
  WatchAll();
  watch_.reset();
  for (const UINT message : {WM_QUERYENDSESSION, WM_ENDSESSION, WM_CLOSE}) Post(message, TRUE);
  RunUntilIdle(loop_);
  EXPECT_EQ(ends_, 0);
  EXPECT_NE(IsWindow(loop_.GetImpl().Window()), 0) << "the loop's window stays";
}

TEST_F(WindowRequestsTest, HandlersMayBeEmptyAndGoInTheirCall) {
  watch_ = WatchSystemRequests(loop_, {});
  for (const UINT message : {WM_ENDSESSION, WM_CLOSE}) Post(message, TRUE);
  RunUntilIdle(loop_);
  watch_.reset();
  watch_ = WatchSystemRequests(loop_, {.end =
                                           [this] {
                                             watch_.reset();
                                             ++ends_;
                                           },
                                       .hang_up = {},
                                       .reopen_log = {}});
  Post(WM_ENDSESSION, TRUE);
  EXPECT_TRUE(RunUntil(loop_, [&] { return ends_ == 1; }));
  EXPECT_FALSE(HangUpIsIgnored());
}

}  // namespace
}  // namespace trabex
