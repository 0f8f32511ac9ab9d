// What the log holds when there was no memory for a part of it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <functional>
#include <string>

#include "app/log_file.h"
#include "support/counted_allocations.h"
#include "support/fake_clock.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

namespace fs = std::filesystem;

class Logged {
 public:
  explicit Logged(bool collects) : collects_(collects) {
    configuration_.LogPath = folder_ / "Log";
    if (collects) log_.CollectOn(&loop_);
    log_.SetTell([this](std::string_view) { ++told_; });
  }

  // Four lines.
  void Play() {
    log_.SetTimer(&timer_);
    log_.LogLine(long_line_);
    log_.LogProblem(long_line_);
    if (collects_) loop_.RunOnce(Milliseconds{0});
    log_.WriteUnstamped(long_line_);
    log_.Close();
    log_.LogLine(long_line_);
    if (collects_) loop_.RunOnce(Milliseconds{0});
  }
  void End() {
    log_.LogLine("last");
    log_.CollectOn(nullptr);
  }

  // Each line is in the file, whole, or counted as lost, once.
  void Check() const {
    std::string text;
    for (const auto& entry : fs::directory_iterator(configuration_.LogPath))
      text += ReadFile(entry.path().string());
    EXPECT_EQ(static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n')) + log_.LostLines(), 5U)
        << text;
    EXPECT_TRUE(text.ends_with(" last\r\n")) << text;
    for (std::size_t begin = 0, end = 0; (end = text.find('\n', begin)) != std::string::npos;
         begin = end + 1) {
      const std::string line = text.substr(begin, end - begin);
      EXPECT_TRUE(line.ends_with("x\r") || line.ends_with("last\r")) << line;
    }
    EXPECT_LE(told_, 1);
  }

 private:
  bool collects_;
  TempFolder folder_;
  Configuration configuration_ = DefaultConfiguration();
  FakeClock clock_;
  EventLoop loop_{clock_};
  Timer timer_{loop_, LogFile::kCloseAfter, [] {}};
  std::string long_line_ = std::string(300, 'x');
  int told_ = 0;
  LogFile log_{configuration_, clock_, "Trabex"};
};

TEST(LogFileWithoutMemory, CountsEachLineOnceWhicheverAllocationFails) {
  for (const bool collects : {false, true}) {
    for (const std::size_t times : {std::size_t{1}, FailedAllocation::kAll}) {
      for (std::size_t before = 0;; ++before) {
        SCOPED_TRACE("allocation " + std::to_string(before) + ", " + std::to_string(times) + " fail" +
                     (collects ? ", collected" : ""));
        Logged logged(collects);
        bool failed = false;
        {
          const FailedAllocation failure(before, times);
          EXPECT_NO_THROW(logged.Play());
          failed = failure.HasFailed();
        }
        logged.End();
        logged.Check();
        if (!failed) {
          EXPECT_GT(before, 10U);
          break;
        }
        ASSERT_LT(before, 1000U);
      }
    }
  }
}

}  // namespace
}  // namespace trabex
