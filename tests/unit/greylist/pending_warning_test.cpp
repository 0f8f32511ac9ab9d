#include "greylist/pending_warning.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/fake_clock.h"
#include "support/loop_runner.h"
#include "support/recorded_log.h"

namespace trabex {
namespace {

using Lines = std::vector<std::string>;
using std::chrono::minutes;
using std::chrono::seconds;

class Warning : public testing::Test {
 protected:
  Lines LinesAfter(Milliseconds span) {
    clock_.Advance(span);
    RunUntilIdle(loop_);
    return log_.Take();
  }

  RecordedLog log_;
  FakeClock clock_;
  EventLoop loop_{clock_};
  PendingWarning warning_{log_, loop_};
};

TEST_F(Warning, LogsTheFirstAtOnce) {
  warning_.Dropped({.by_limit_in_all = 2, .by_limit_per_network = 1}, "10.1.2");
  EXPECT_EQ(log_.Take(), Lines{"Greylisting: Too many pending records. Dropped: 3; Network: 10.1.2."});
}

TEST_F(Warning, NamesANetworkOnlyWhenItReachedItsOwnLimit) {
  warning_.Dropped({.by_limit_in_all = 2}, "10.1.2");
  EXPECT_EQ(log_.Take(), Lines{"Greylisting: Too many pending records. Dropped: 2."});
  warning_.Dropped({.by_limit_per_network = 1}, "10.1.2");
  warning_.Dropped({.by_limit_per_network = 1}, "10.1.3");
  warning_.Dropped({.by_limit_in_all = 1}, "10.1.4");
  EXPECT_EQ(LinesAfter(minutes(60)),
            Lines{"Greylisting: Too many pending records. Dropped: 3; Network: 10.1.3."});
  // It is not that of the hour before.
  warning_.Dropped({.by_limit_in_all = 1}, "10.1.4");
  EXPECT_EQ(LinesAfter(minutes(60)), Lines{"Greylisting: Too many pending records. Dropped: 1."});
}

TEST_F(Warning, NothingDroppedIsNothingToLog) {
  warning_.Dropped({}, "10.1.2");
  EXPECT_EQ(LinesAfter(minutes(120)), Lines{});
}

TEST_F(Warning, LogsOnceAnHourAtMost) {
  Lines lines;
  // Five hours of one each second.
  for (int second = 0; second < 5 * 3600; ++second) {
    warning_.Dropped({.by_limit_in_all = 1}, "10.1.2");
    for (std::string& line : log_.Take()) lines.push_back(line);
    for (std::string& line : LinesAfter(seconds(1))) lines.push_back(line);
  }
  EXPECT_EQ(lines, (Lines{"Greylisting: Too many pending records. Dropped: 1.",
                          "Greylisting: Too many pending records. Dropped: 3599.",
                          "Greylisting: Too many pending records. Dropped: 3600.",
                          "Greylisting: Too many pending records. Dropped: 3600.",
                          "Greylisting: Too many pending records. Dropped: 3600.",
                          "Greylisting: Too many pending records. Dropped: 3600."}));
}

// The rest of a flood that ended is logged all the same, and after a quiet hour the next at once again.
TEST_F(Warning, LogsTheRestOfAFlood) {
  warning_.Dropped({.by_limit_in_all = 1}, "");
  warning_.Dropped({.by_limit_in_all = 41}, "");
  EXPECT_EQ(log_.Take().size(), 1U);
  EXPECT_EQ(LinesAfter(minutes(59)), Lines{});
  EXPECT_EQ(LinesAfter(minutes(1)), Lines{"Greylisting: Too many pending records. Dropped: 41."});
  EXPECT_EQ(LinesAfter(minutes(59)), Lines{});
  EXPECT_EQ(LinesAfter(minutes(1)), Lines{});
  warning_.Dropped({.by_limit_in_all = 7}, "");
  EXPECT_EQ(log_.Take(), Lines{"Greylisting: Too many pending records. Dropped: 7."});
}

// Only the time that has really passed counts.
TEST_F(Warning, AClockThatIsSetChangesNothing) {
  warning_.Dropped({.by_limit_in_all = 1}, "");
  log_.Take();
  for (const double days : {-30.0, 60.0}) {
    clock_.SetNow(clock_.Now() + days);
    warning_.Dropped({.by_limit_in_all = 1}, "");
    EXPECT_EQ(LinesAfter(minutes(1)), Lines{});
  }
}

}  // namespace
}  // namespace trabex
