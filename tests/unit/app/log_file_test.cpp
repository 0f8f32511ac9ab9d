#include "app/log_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/calendar.h"
#include "support/fake_clock.h"
#include "support/open_file_limit.h"
#include "support/open_files.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

namespace fs = std::filesystem;

// The whole file; empty when there is none yet.
std::string FileText(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

class LogFileTest : public testing::Test {
 protected:
  LogFileTest() {
    configuration_.LogPath = folder_ / "Log";
    configuration_.BindPort = 25;
    SetTime(2026, 11, 15, 13, 54, 24);
  }

  void SetTime(int year, int month, int day, int hour, int minute, int second) {
    clock_.SetNow(FromCalendar({.year = year,
                                .month = month,
                                .day = day,
                                .weekday = 0,
                                .hour = hour,
                                .minute = minute,
                                .second = second}));
  }
  std::string File(const std::string& name) const {
    return FileText(fs::path(configuration_.LogPath) / name);
  }
  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    if (!fs::exists(configuration_.LogPath)) return names;
    for (const auto& entry : fs::directory_iterator(configuration_.LogPath)) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }
  // Whether this process has a file of the log folder open.
  bool HasOpenFile() const { return OpenFilesIn(configuration_.LogPath) > 0; }

  TempFolder folder_;
  Configuration configuration_ = DefaultConfiguration();
  FakeClock clock_;
  LogFile log_{configuration_, clock_, "Trabex"};
};

TEST_F(LogFileTest, LineHasTimeMessageAndLineEnd) {
  log_.LogLine("Listen on: 0.0.0.0:25; Connect to: 127.0.0.1:25.");
  EXPECT_EQ(File("Trabex-25-261115.log"),
            "15/11/26 13:54:24 Listen on: 0.0.0.0:25; Connect to: 127.0.0.1:25.\r\n");
}

TEST_F(LogFileTest, TimeOfEachLineIsItsOwn) {
  SetTime(2026, 1, 2, 3, 4, 5);
  log_.LogLine("a");
  log_.LogLine("b");
  clock_.Advance(Milliseconds(1000));
  log_.LogLine("c");
  SetTime(2026, 1, 2, 0, 0, 0);
  log_.LogLine("d");
  EXPECT_EQ(File("Trabex-25-260102.log"),
            "02/01/26 03:04:05 a\r\n02/01/26 03:04:05 b\r\n02/01/26 03:04:06 c\r\n02/01/26 00:00:00 d\r\n");
}

TEST_F(LogFileTest, MessagesAreWrittenAsTheyAre) {
  log_.LogLine("two\r\nlines \xC2\xB6 and a NUL" + std::string(1, '\0'));
  log_.LogLine("");
  EXPECT_EQ(File("Trabex-25-261115.log"), "15/11/26 13:54:24 two\r\nlines \xC2\xB6 and a NUL" +
                                              std::string(1, '\0') + "\r\n15/11/26 13:54:24 \r\n");
}

TEST_F(LogFileTest, ErrorsHaveNumberSourceAndDescription) {
  log_.LogError(380, "Invalid IP address: \"x\".", "mCommon.CLngIP");
  EXPECT_EQ(File("Trabex-25-261115.log"),
            "15/11/26 13:54:24 Error 380 in mCommon.CLngIP. Invalid IP address: \"x\".\r\n");
}

TEST_F(LogFileTest, NothingIsWrittenWithoutLogging) {
  configuration_.Log = 0;
  log_.LogLine("a");
  log_.WriteUnstamped("b");
  EXPECT_FALSE(fs::exists(configuration_.LogPath));
  configuration_.Log = 2;
  log_.LogLine("c");
  EXPECT_EQ(File("Trabex-25-261115.log"), "15/11/26 13:54:24 c\r\n");
}

TEST_F(LogFileTest, OnlyTheLastLevelOfTheFolderIsCreated) {
  configuration_.LogPath = folder_ / "none/Log";
  log_.LogLine("lost");
  EXPECT_FALSE(fs::exists(folder_ / "none"));
  fs::create_directory(folder_ / "none");
  log_.LogLine("kept");
  EXPECT_EQ(File("Trabex-25-261115.log"), "15/11/26 13:54:24 kept\r\n");
}

TEST_F(LogFileTest, FolderMayEndWithASeparatorOfEitherKind) {
  for (const char* end : {"/", "\\"}) {
    const std::string name = std::string("Log") + (*end == '/' ? "1" : "2");
    configuration_.LogPath = (folder_ / name) + end;
    log_.LogLine("a");
    log_.Close();
    EXPECT_EQ(FileText(folder_ / (name + "/Trabex-25-261115.log")), "15/11/26 13:54:24 a\r\n") << end;
  }
}

TEST_F(LogFileTest, FileThatCannotBeOpenedLosesItsLinesOnly) {
  fs::create_directories(fs::path(configuration_.LogPath) / "Trabex-25-261115.log");
  log_.LogLine("lost");
  fs::remove(fs::path(configuration_.LogPath) / "Trabex-25-261115.log");
  log_.LogLine("kept");
  EXPECT_EQ(File("Trabex-25-261115.log"), "15/11/26 13:54:24 kept\r\n");
}

TEST_F(LogFileTest, ExistingFileIsAppendedTo) {
  log_.LogLine("a");
  log_.Close();
  EXPECT_FALSE(HasOpenFile());
  log_.LogLine("b");
  EXPECT_EQ(File("Trabex-25-261115.log"), "15/11/26 13:54:24 a\r\n15/11/26 13:54:24 b\r\n");
}

TEST_F(LogFileTest, LineThatWasCutOffTakesNoOtherWithIt) {
  fs::create_directory(configuration_.LogPath);
  const fs::path path = fs::path(configuration_.LogPath) / "Trabex-25-261115.log";
  WriteFile(path.string(), "whole\r\ncut o");
  log_.LogLine("one");
  log_.Close();
  log_.LogLine("two");
  EXPECT_EQ(FileText(path), "whole\r\ncut o\r\n15/11/26 13:54:24 one\r\n15/11/26 13:54:24 two\r\n");
  EXPECT_EQ(log_.LostLines(), 0U);
}

TEST_F(LogFileTest, FoldersAndPortsAreReadWhenTheFileIsOpened) {
  log_.LogLine("a");
  configuration_.BindPort = 2525;
  log_.LogLine("b");
  log_.Close();
  log_.LogLine("c");
  EXPECT_EQ(Files(), (std::vector<std::string>{"Trabex-25-261115.log", "Trabex-2525-261115.log"}));
  EXPECT_EQ(File("Trabex-2525-261115.log"), "15/11/26 13:54:24 c\r\n");
}

TEST_F(LogFileTest, WholeLinesAreWrittenWithoutAStamp) {
  log_.LogLine("a");
  log_.WriteUnstamped("[Common]");
  log_.WriteUnstamped("Log = 2");
  EXPECT_EQ(File("Trabex-25-261115.log"), "15/11/26 13:54:24 a\r\n[Common]\r\nLog = 2\r\n");
}

TEST_F(LogFileTest, ObserverSeesEveryMessageWhetherWrittenOrNot) {
  std::vector<std::string> seen;
  log_.SetObserver([&seen](std::string_view message) { seen.emplace_back(message); });
  log_.LogLine("a");
  configuration_.Log = 0;
  log_.LogError(53, "File not found", "mCommon.ReadIniFile");
  log_.SetObserver({});
  log_.LogLine("c");
  EXPECT_EQ(seen, (std::vector<std::string>{"a", "Error 53 in mCommon.ReadIniFile. File not found"}));
}

TEST_F(LogFileTest, OpensWhenAllOtherDescriptorsAreUsedUp) {
  // Before the limit: a sanitizer needs descriptors for its first look at an object.
  log_.LogLine("a");
  log_.Close();
  OpenFileLimit limit;
  limit.LeaveOnly(0);
  // Twice: closing the file must keep its descriptor for the next time.
  log_.LogLine("b");
  log_.Close();
  const bool none_left = OpenFileLimit::NoneLeft();
  log_.LogLine("c");
  limit.Lift();
  EXPECT_TRUE(none_left);
  EXPECT_EQ(File("Trabex-25-261115.log"),
            "15/11/26 13:54:24 a\r\n15/11/26 13:54:24 b\r\n15/11/26 13:54:24 c\r\n");
}

// With the loop that the program has.
class LogFileInLoopTest : public LogFileTest {
 protected:
  LogFileInLoopTest() {
    log_.SetTimer(&timer_);
    log_.CollectOn(&loop_);
    timer_.Enable();
  }
  ~LogFileInLoopTest() override {
    log_.CollectOn(nullptr);
    log_.SetTimer(nullptr);
  }

  // One iteration in which `action` is called.
  void InIteration(std::function<void()> action) {
    loop_.Post(std::move(action));
    loop_.RunOnce(Milliseconds(0));
  }
  void Pass(Milliseconds span) {
    clock_.Advance(span);
    loop_.RunOnce(Milliseconds(0));
  }

  EventLoop loop_{clock_};
  Timer timer_{loop_, LogFile::kCloseAfter, [this] {
                 timer_.Disable();
                 log_.Close();
               }};
};

TEST_F(LogFileInLoopTest, LinesAreInTheFileAtTheEndOfTheirIteration) {
  std::string during;
  InIteration([&] {
    log_.LogLine("a");
    log_.LogLine("b");
    during = File("Trabex-25-261115.log");
  });
  EXPECT_EQ(during, "");
  EXPECT_EQ(File("Trabex-25-261115.log"), "15/11/26 13:54:24 a\r\n15/11/26 13:54:24 b\r\n");
}

TEST_F(LogFileInLoopTest, MuchIsWrittenBeforeTheEndOfTheIteration) {
  std::size_t during = 0;
  InIteration([&] {
    log_.LogLine(std::string(70000, 'x'));
    during = File("Trabex-25-261115.log").size();
    log_.LogLine("b");
  });
  EXPECT_EQ(during, 70000U + 20U);
  EXPECT_EQ(File("Trabex-25-261115.log").substr(70000 + 20), "15/11/26 13:54:24 b\r\n");
}

TEST_F(LogFileInLoopTest, ClosingWritesWhatHasCollected) {
  std::string during;
  InIteration([&] {
    log_.LogLine("a");
    log_.Close();
    during = File("Trabex-25-261115.log");
  });
  EXPECT_EQ(during, "15/11/26 13:54:24 a\r\n");
}

TEST_F(LogFileInLoopTest, LinesLeftWhenCollectingEndsAreWritten) {
  log_.LogLine("a");
  log_.CollectOn(nullptr);
  EXPECT_EQ(File("Trabex-25-261115.log"), "15/11/26 13:54:24 a\r\n");
}

TEST_F(LogFileInLoopTest, FileIsClosedAfterFiveQuietSeconds) {
  InIteration([this] { log_.LogLine("a"); });
  Pass(Milliseconds(4000));
  InIteration([this] { log_.LogLine("b"); });
  Pass(Milliseconds(4999));
  EXPECT_TRUE(HasOpenFile());
  Pass(Milliseconds(1));
  EXPECT_FALSE(HasOpenFile());
  EXPECT_FALSE(timer_.Enabled());
}

TEST_F(LogFileInLoopTest, LinesTenSecondsApartOpenTheFileTwice) {
  InIteration([this] { log_.LogLine("a"); });
  EXPECT_TRUE(HasOpenFile());
  Pass(Milliseconds(5000));
  EXPECT_FALSE(HasOpenFile());
  Pass(Milliseconds(5000));
  InIteration([this] { log_.LogLine("b"); });
  EXPECT_TRUE(HasOpenFile());
  Pass(Milliseconds(5000));
  EXPECT_FALSE(HasOpenFile());
  EXPECT_EQ(File("Trabex-25-261115.log"), "15/11/26 13:54:24 a\r\n15/11/26 13:54:34 b\r\n");
}

TEST_F(LogFileInLoopTest, NewDayBeginsAfterAPauseOnly) {
  SetTime(2026, 11, 15, 23, 59, 58);
  InIteration([this] { log_.LogLine("before midnight"); });
  Pass(Milliseconds(3000));
  InIteration([this] { log_.LogLine("after midnight"); });
  EXPECT_EQ(File("Trabex-25-261115.log"),
            "15/11/26 23:59:58 before midnight\r\n16/11/26 00:00:01 after midnight\r\n");
  Pass(Milliseconds(9000));
  InIteration([this] { log_.LogLine("after the pause"); });
  EXPECT_EQ(File("Trabex-25-261116.log"), "16/11/26 00:00:10 after the pause\r\n");
}

TEST_F(LogFileInLoopTest, FileOpenedAgainInAnIterationThatHadLinesIsStillClosed) {
  InIteration([this] {
    log_.LogLine("a");
    timer_.Disable();
    log_.Close();
    log_.LogLine("b");
  });
  EXPECT_TRUE(HasOpenFile());
  Pass(Milliseconds(5000));
  EXPECT_FALSE(HasOpenFile());
}

TEST_F(LogFileInLoopTest, LostLineRestartsNoTimer) {
  Pass(Milliseconds(5000));
  ASSERT_FALSE(timer_.Enabled());
  configuration_.LogPath = folder_ / "none/Log";
  InIteration([this] { log_.LogLine("lost"); });
  EXPECT_FALSE(timer_.Enabled());
}

TEST_F(LogFileTest, CountsTheLinesThatItLoses) {
  log_.LogLine("kept");
  EXPECT_EQ(log_.LostLines(), 0U);
  log_.Close();
  configuration_.LogPath = folder_ / "none/Log";
  log_.LogLine("lost");
  log_.WriteUnstamped("lost");
  EXPECT_EQ(log_.LostLines(), 2U);
  configuration_.Log = 0;
  log_.LogLine("not wanted");
  EXPECT_EQ(log_.LostLines(), 2U);
}

TEST_F(LogFileTest, HasAnObserverOfErrors) {
  std::vector<std::string> errors;
  log_.SetErrorObserver([&](int number, std::string_view text) {
    errors.push_back(std::to_string(number) + " " + std::string(text));
  });
  log_.LogLine("no error");
  log_.LogError(57, "Device I/O error", "somewhere");
  log_.LogError(Error(70, "elsewhere", "Permission denied"));
  EXPECT_EQ(errors, (std::vector<std::string>{"57 Device I/O error", "70 Permission denied"}));
}

}  // namespace
}  // namespace trabex
