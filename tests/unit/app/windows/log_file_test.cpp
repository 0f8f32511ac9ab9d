#include "app/log_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/fake_clock.h"
#include "support/temp_folder.h"
#include "support/windows/held_file.h"

namespace trabex {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::StartsWith;

class WindowsLogFileTest : public testing::Test {
 protected:
  WindowsLogFileTest() {
    configuration_.BindPort = 25;
    log_.SetTell([this](std::string_view text) { told_.emplace_back(text); });
  }

  const TempFolder folder_;
  Configuration configuration_ = DefaultConfiguration();
  const FakeClock clock_;
  LogFile log_{configuration_, clock_, "Trabex"};
  std::vector<std::string> told_;
};

// Devices, hidden streams of other files, and what no name may have in it.
TEST_F(WindowsLogFileTest, PlacesThatAreNoFoldersLoseTheirLinesOnly) {
  WriteFile(folder_ / "file", "x");
  const std::string places[] = {"NUL",           folder_ / "COM1",     folder_ / "file:stream",
                                "C:x",           folder_ / "what?",    folder_ / "a|b",
                                folder_ / "a*b", folder_ / "<a>\"b\"", folder_ / "file"};
  std::uint64_t lost = 0;
  for (const std::string& place : places) {
    configuration_.LogPath = place;
    log_.TellFailureAgain();
    told_.clear();
    log_.LogLine("lost");
    log_.Close();
    EXPECT_EQ(log_.LostLines(), ++lost) << place;
    EXPECT_THAT(
        told_, ElementsAre(AllOf(StartsWith("Unable to open log file \""), EndsWith(". Nothing is logged."))))
        << place;
  }
  EXPECT_EQ(ReadFile(folder_ / "file"), "x");
  EXPECT_EQ(std::distance(fs::directory_iterator(folder_.Path()), fs::directory_iterator()), 1)
      << "nothing was made";
  EXPECT_FALSE(fs::exists("x"));
}

TEST_F(WindowsLogFileTest, FileThatSomebodyElseHoldsLosesItsLinesOnly) {
  configuration_.LogPath = folder_ / "Log";
  log_.LogLine("kept");
  log_.Close();
  const std::string path = fs::directory_iterator(configuration_.LogPath)->path().string();
  {
    const HeldFile held(path);
    log_.LogLine("lost");
    log_.LogLine("lost too");
    EXPECT_EQ(log_.LostLines(), 2U);
    EXPECT_EQ(told_.size(), 1U);
  }
  log_.LogLine("kept too");
  log_.Close();
  EXPECT_EQ(log_.LostLines(), 2U);
  EXPECT_THAT(ReadFile(path), AllOf(testing::HasSubstr(" kept\r\n"), EndsWith(" kept too\r\n"),
                                    testing::Not(testing::HasSubstr("lost"))));
}

}  // namespace
}  // namespace trabex
