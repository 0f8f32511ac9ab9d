// Files that a reload does not take, or not yet.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "reload_fixture.h"
#include "support/plain_socket.h"

namespace trabex {
namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;

// What may be left of a file whose writer was stopped, or is not done.
TEST_F(AutoReloadTest, AFileWithoutASectionIsNoChange) {
  WriteIni("Timeout=100\nIgnoreIniErrors=1\n");
  Start();
  Pass(20);
  for (const char* text : {"", "\xEF\xBB\xBF", " \r\n\t\r\n", "; [Common]\n", "Timeout=200\n", "[Comm",
                           "[Common\nTimeout=200\n", "[Other]\nTimeout=200\n"}) {
    SCOPED_TRACE(text);
    log_.clear();
    Write(ini_, text);
    Pass(60);
    EXPECT_THAT(log_,
                ElementsAre("Error reading initialization file \"" + ini_ +
                            "\". Error number: 321, Description: It has no section; the configuration in "
                            "force stays."));
    EXPECT_EQ(Settings().Timeout, 100);
    EXPECT_EQ(Settings().BindPort, port_);
  }
  EXPECT_FALSE(Window().Unloaded());
  EXPECT_TRUE(PlainSocket().Connect(port_));
  WriteIni("Timeout=200\n");
  Pass(60);
  EXPECT_EQ(Settings().Timeout, 200);
}

TEST_F(AutoReloadTest, AFileWithoutASectionEndsNothingWhenErrorsCountEither) {
  WriteIni("Timeout=100\nIgnoreIniErrors=0\n");
  Start();
  Write(ini_, "[Comm");
  Pass(60);
  EXPECT_FALSE(Window().Unloaded());
  EXPECT_EQ(Settings().Timeout, 100);
  EXPECT_FALSE(Settings().IgnoreIniErrors);
}

// The log may lie in the same folder: what is said about the file must not be the reason to look again.
TEST_F(AutoReloadTest, ARefusedFileIsReportedOnce) {
  Start();
  Write(ini_, "");
  for (int i = 0; i < 10; ++i) {
    Pass(20);
    Write(folder_ / "Trabex-25.log", "a line more\n");
  }
  EXPECT_EQ(log_.size(), 1U);
  WriteIni("Timeout=200\n");
  Pass(60);
  EXPECT_EQ(Settings().Timeout, 200);
}

TEST_F(AutoReloadTest, AFileThatCannotBeReadIsReportedOnceAndReadWhenItCan) {
  Start();
  std::filesystem::remove(ini_);
  std::filesystem::create_directory(ini_);
  const auto date = next_date_ += seconds(10);
  std::filesystem::last_write_time(ini_, date);
  for (int i = 0; i < 10; ++i) {
    Pass(20);
    Write(folder_ / "Trabex-25.log", "a line more\n");
  }
  EXPECT_THAT(log_, ElementsAre(HasSubstr("Error reading initialization file")));
  std::filesystem::remove(ini_);
  WriteIni("Timeout=200\n");
  std::filesystem::last_write_time(ini_, date);
  Pass(60);
  EXPECT_EQ(Settings().Timeout, 200);
}

TEST_F(AutoReloadTest, ALastLineWithoutItsEndIsWaitedForOnce) {
  Start();
  Pass(20);
  WriteIni("Timeout=200");
  Pass(31);
  EXPECT_THAT(log_, ElementsAre("Initialization file \"" + ini_ +
                                "\" is not read yet because its last line has no line end."));
  Pass(14);
  EXPECT_EQ(Reloads(), 0);
  EXPECT_EQ(Settings().Timeout, 100);
  Pass(2);
  EXPECT_EQ(Reloads(), 1);
  EXPECT_EQ(Settings().Timeout, 200);
  EXPECT_EQ(log_.size(), 3U) << "with the addresses";
  Pass(120);
  EXPECT_EQ(Reloads(), 1);
}

TEST_F(AutoReloadTest, AFileThatGrowsWhileItIsWaitedForIsReadWhenComplete) {
  Start();
  Pass(20);
  WriteIni("Timeout=200\nMaxBadSe");
  Pass(32);
  ASSERT_EQ(log_.size(), 1U);
  WriteIni("Timeout=200\nMaxBadSeq=7\n");
  Pass(30);
  EXPECT_EQ(Reloads(), 0) << "the delay runs again";
  Pass(2);
  EXPECT_EQ(Reloads(), 1);
  EXPECT_EQ(Settings().MaxBadSeq, 7);
}

// A change that was not notified yet at the second look, as on a folder that does not notify.
TEST_F(AutoReloadTest, AChangeSeenAtTheSecondLookOnlyBeginsTheDelayToo) {
  Start();
  Pass(20);
  WriteIni("Timeout=200\nMaxBadSe");
  Pass(31);
  ASSERT_EQ(log_.size(), 1U);
  Settings().AutoReload = false;  // ends the watch
  Pass(5);
  WriteIni("Timeout=200\nMaxBadSeq=7\n");
  Pass(35);
  EXPECT_EQ(Reloads(), 0);
  Pass(10);
  EXPECT_EQ(Reloads(), 1);
  EXPECT_EQ(Settings().MaxBadSeq, 7);
}

TEST_F(AutoReloadTest, EachUnfinishedStateIsWaitedForAnew) {
  Start();
  Pass(20);
  for (const char* more : {"Tim", "Timeout=2", "Timeout=20"}) {
    log_.clear();
    WriteIni(more);
    Pass(35);
    EXPECT_EQ(log_.size(), 1U) << more;
  }
  EXPECT_EQ(Reloads(), 0);
  Pass(15);
  EXPECT_EQ(Settings().Timeout, 20);
}

TEST_F(AutoReloadTest, AFileThatShrinksToNothingWhileItIsWaitedForIsRefused) {
  Start();
  Pass(20);
  WriteIni("Timeout=200");
  Pass(32);
  Write(ini_, "");
  Pass(60);
  EXPECT_EQ(Reloads(), 0);
  EXPECT_EQ(log_.size(), 2U);
  EXPECT_EQ(Settings().Timeout, 100);
  WriteIni("Timeout=300");
  Pass(32);
  EXPECT_EQ(Reloads(), 0) << "another file, waited for again";
  Pass(15);
  EXPECT_EQ(Settings().Timeout, 300);
}

}  // namespace
}  // namespace trabex
