#include "platform/background_task.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>

#include "platform/clock.h"
#include "platform/file_stream.h"
#include "platform/windows/win.h"
#include "support/loop_runner.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

std::atomic<bool> work_began{false};
std::atomic<bool> work_may_go_on{false};

// Writes its content to a file, and waits in between.
std::string WriteSlowly(const std::string& path, const TaskContent& content) {
  NewFile file(path, "source");
  const std::string text = content([&](std::string_view bytes) {
    file.Write(bytes);
    work_began = true;
    while (!work_may_go_on) Sleep(1);
  });
  file.Release();
  return text;
}

class ThreadTaskTest : public testing::Test {
 protected:
  ThreadTaskTest() {
    work_began = false;
    work_may_go_on = false;
  }
  bool StartWriting(BackgroundTask& task) {
    return task.Start(
        [](const auto& out) {
          out(std::string(3 << 20, 'x'));  // several pieces
          return std::string("all");
        },
        WriteSlowly, path_, [this](const TaskResult& result) { said_ = result.text; });
  }

  const TempFolder folder_;
  const std::string path_ = folder_ / "new";
  SystemClock clock_;
  EventLoop loop_{clock_};
  std::string said_ = "nothing";
};

TEST_F(ThreadTaskTest, GivenUpItLeavesNoFile) {
  {
    BackgroundTask task(loop_);
    ASSERT_TRUE(StartWriting(task));
    while (!work_began) Sleep(1);
    EXPECT_TRUE(std::filesystem::exists(path_));
    EXPECT_TRUE(task.Running());
    work_may_go_on = true;  // to its next piece
    task.Cancel();
    EXPECT_FALSE(task.Running());
    EXPECT_FALSE(std::filesystem::exists(path_));
    work_began = false;
    work_may_go_on = false;
    ASSERT_TRUE(StartWriting(task));
    while (!work_began) Sleep(1);
    work_may_go_on = true;
  }
  EXPECT_FALSE(std::filesystem::exists(path_)) << "nor when the task is destroyed";
  RunUntilIdle(loop_);
  EXPECT_EQ(said_, "nothing");
}

TEST_F(ThreadTaskTest, WaitedForItIsWhole) {
  BackgroundTask task(loop_);
  ASSERT_TRUE(StartWriting(task));
  work_may_go_on = true;
  task.Wait();
  EXPECT_EQ(said_, "all");
  EXPECT_EQ(std::filesystem::file_size(path_), std::uintmax_t{3} << 20);
  said_ = "nothing";
  RunUntilIdle(loop_);
  EXPECT_EQ(said_, "nothing") << "only once";
}

TEST_F(ThreadTaskTest, TheLoopIsNotHeldUp) {
  BackgroundTask task(loop_);
  ASSERT_TRUE(StartWriting(task));
  int ticks = 0;
  Timer timer(loop_, Milliseconds(1), [&] { ++ticks; });
  timer.Enable();
  EXPECT_TRUE(RunUntil(loop_, [&] { return ticks >= 10; }));
  EXPECT_TRUE(task.Running());
  work_may_go_on = true;
  EXPECT_TRUE(RunUntil(loop_, [&] { return said_ == "all"; }));
}

}  // namespace
}  // namespace trabex
