// When the file counts as changed, and what a reload puts in force.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "reload_fixture.h"
#include "support/plain_socket.h"

namespace trabex {
namespace {

using std::chrono::seconds;
using testing::Contains;
using testing::HasSubstr;
using testing::StartsWith;

TEST_F(AutoReloadTest, ReloadsHalfAMinuteAfterTheChange) {
  Start();
  WriteIni("Timeout=200\n");
  Pass(30);
  EXPECT_EQ(Settings().Timeout, 100);
  Pass(2);
  EXPECT_EQ(Settings().Timeout, 200);
  EXPECT_EQ(Reloads(), 1);
  EXPECT_THAT(log_.back(), StartsWith("Listen on: 127.0.0.1:" + std::to_string(port_)));
  Pass(120);
  EXPECT_EQ(Reloads(), 1);
}

TEST_F(AutoReloadTest, AChangeInTheFirstSecondsCounts) {
  Start();
  Pass(3);
  WriteIni("Timeout=200\n");
  Pass(50);
  EXPECT_EQ(Settings().Timeout, 200);
}

TEST_F(AutoReloadTest, TwoChangesWithinTheDelayAreOneReload) {
  Start();
  WriteIni("Timeout=200\n");
  Pass(20);
  WriteIni("Timeout=300\n");
  Pass(29);
  EXPECT_EQ(Reloads(), 0);
  Pass(20);
  EXPECT_EQ(Reloads(), 1);
  EXPECT_EQ(Settings().Timeout, 300);
}

TEST_F(AutoReloadTest, AnotherFileInTheFolderIsNoChange) {
  Start();
  Pass(20);
  Write(folder_ / "other.ini", "[Common]\n");
  Pass(120);
  EXPECT_EQ(Reloads(), 0);
}

TEST_F(AutoReloadTest, OtherFilesDoNotPutTheReloadOff) {
  Start();
  Pass(20);
  WriteIni("Timeout=200\n");
  for (int i = 0; i < 4; ++i) {
    Pass(8);
    Write(folder_ / "Trabex-25.log", "a line more\n");
  }
  EXPECT_EQ(Settings().Timeout, 200);
  EXPECT_EQ(Reloads(), 1);
}

TEST_F(AutoReloadTest, AFileRenamedOverItIsAChange) {
  Start();
  Pass(20);
  Write(folder_ / "Trabex.ini.tmp", Ini("Timeout=200\n"));
  std::filesystem::rename(folder_ / "Trabex.ini.tmp", ini_);
  Pass(60);
  EXPECT_EQ(Settings().Timeout, 200);
  EXPECT_EQ(Reloads(), 1);
}

TEST_F(AutoReloadTest, APathWithBackslashesIsWatchedToo) {
  program_->ini_file.path = folder_.Path() + "\\Trabex.ini";
  Start();
  WriteIni("Timeout=200\n");
  Pass(60);
  EXPECT_EQ(Settings().Timeout, 200);
  EXPECT_EQ(Reloads(), 1);
}

TEST_F(AutoReloadTest, AnotherDateAloneIsAChange) {
  Start();
  Pass(20);
  std::filesystem::last_write_time(ini_, next_date_ += seconds(100));
  Pass(60);
  EXPECT_EQ(Reloads(), 1);
}

TEST_F(AutoReloadTest, AClockSetBackDoesNotPutTheCheckOff) {
  Start();
  Pass(20);
  clock_.SetNow(clock_.Now() - 1);
  WriteIni("Timeout=200\n");
  Pass(40);
  EXPECT_EQ(Settings().Timeout, 200);
}

TEST_F(AutoReloadTest, SwitchedOffNothingIsWatched) {
  WriteIni("AutoReload=0\n");
  Start();
  WriteIni("Timeout=200\n");
  Pass(120);
  EXPECT_EQ(Settings().Timeout, 300);  // the default
}

TEST_F(AutoReloadTest, AMissingFileIsNoChange) {
  Start();
  Pass(20);
  WriteIni("Timeout=200\n");
  Pass(16);
  std::filesystem::remove(ini_);
  Pass(60);
  EXPECT_EQ(Reloads(), 0);
  EXPECT_EQ(Settings().Timeout, 100);
  EXPECT_FALSE(Window().Unloaded());
  EXPECT_THAT(log_, Contains(HasSubstr("Error reading initialization file")));
}

TEST_F(AutoReloadTest, ABadValueEndsTheProgram) {
  Start();
  WriteIni("IgnoreIniErrors=0\nTimeout=many\n");
  Pass(60);
  EXPECT_TRUE(Window().Unloaded());
  EXPECT_EQ(program_->exit_status, 1);
  EXPECT_THAT(log_, Contains(HasSubstr("Value is not a number: \"many\".")));
}

TEST_F(AutoReloadTest, ASyntaxErrorEndsTheProgram) {
  Start();
  WriteIni("IgnoreIniErrors=0\nnonsense\n");
  Pass(60);
  EXPECT_TRUE(Window().Unloaded());
  EXPECT_THAT(log_, Contains(HasSubstr("Invalid line: \"nonsense\".")));
}

TEST_F(AutoReloadTest, AnotherPortMovesListenerAndLock) {
  Start();
  const int other = FreePort();
  std::string text = Ini("");
  text.replace(text.find("BindPort=" + std::to_string(port_)), 9 + std::to_string(port_).size(),
               "BindPort=" + std::to_string(other));
  Write(ini_, text);
  Pass(60);
  EXPECT_EQ(Reloads(), 1);
  EXPECT_TRUE(PlainSocket().Connect(other));
  EXPECT_FALSE(PlainSocket().Connect(port_));
  EXPECT_NE(TryLockInstance(program_->loop, InstanceName(port_), [] {}), nullptr);
  EXPECT_EQ(TryLockInstance(program_->loop, InstanceName(other), [] {}), nullptr);
}

TEST_F(AutoReloadTest, APortThatAnotherInstanceHasEndsTheProgram) {
  Start();
  const int other = FreePort();
  const auto lock = TryLockInstance(program_->loop, InstanceName(other), [] {});
  ASSERT_NE(lock, nullptr);
  std::string text = Ini("");
  text.replace(text.find("BindPort=" + std::to_string(port_)), 9 + std::to_string(port_).size(),
               "BindPort=" + std::to_string(other));
  Write(ini_, text);
  Pass(60);
  EXPECT_TRUE(Window().Unloaded());
  EXPECT_EQ(program_->exit_status, 1);
  EXPECT_THAT(log_, Contains("The instance of this application listening on the same port already running."));
}

TEST_F(AutoReloadTest, AServerThatIsTheListenerEndsTheProgram) {
  Start();
  std::string text = Ini("ServerIP=127.0.0.1\n");
  const std::string server_port = "ServerPort=" + std::to_string(ServerPort());
  text.replace(text.find(server_port), server_port.size(), "ServerPort=" + std::to_string(port_));
  Write(ini_, text);
  names_->SetAddresses("127.0.0.1", {kIPv4Loopback});
  Pass(60);
  EXPECT_THAT(log_, Contains(StartsWith("Loop detected")));
  EXPECT_TRUE(Window().Unloaded());
  EXPECT_EQ(program_->exit_status, 1);
}

TEST_F(AutoReloadTest, AnotherServerDoesNotTouchTheListener) {
  Start();
  PlainSocket waiting;
  ASSERT_TRUE(waiting.Connect(port_));
  WriteIni("ServerIP=127.0.0.77\n");
  Pass(60);
  EXPECT_EQ(Reloads(), 1);
  EXPECT_EQ(Settings().ServerIP, "127.0.0.77");
  EXPECT_THAT(log_.back(), HasSubstr("Connect to: 127.0.0.77:"));
  EXPECT_TRUE(PlainSocket().Connect(port_));
}

TEST_F(AutoReloadTest, ReadsAgainWhenAListFileHasChanged) {
  const std::string list = folder_ / "lists/hosts";
  std::filesystem::create_directory(folder_ / "lists");
  Write(list, "a.example\n");
  WriteIni("[ListFiles]\nCommon.HostsWhiteList=" + list + "\n");
  Start();
  Pass(60);
  EXPECT_EQ(log_, std::vector<std::string>{});
  const auto reloads = [this] {
    return std::count(log_.begin(), log_.end(),
                      "Configuration reloaded because date/time of a list file changed.");
  };
  Write(list, "b.example\n");
  Pass(60);
  EXPECT_EQ(reloads(), 1);
  EXPECT_EQ(Reloads(), 0);
  EXPECT_TRUE(Settings().HostsWhiteList.Contains("b.example"));
  EXPECT_FALSE(Settings().HostsWhiteList.Contains("a.example"));
  // A reload while it is gone leaves the list as it is.
  std::filesystem::remove(list);
  WriteIni("Timeout=77\n[ListFiles]\nCommon.HostsWhiteList=" + list + "\n");
  Pass(120);
  EXPECT_EQ(Reloads(), 1);
  EXPECT_EQ(Settings().Timeout, 77);
  EXPECT_TRUE(Settings().HostsWhiteList.Contains("b.example"));
  EXPECT_EQ(std::count(log_.begin(), log_.end(),
                       "Unable to read list file \"" + list + "\". File not found. The list in force stays."),
            1);
  Write(list, "c.example\n");
  Pass(60);
  EXPECT_TRUE(Settings().HostsWhiteList.Contains("c.example"));
  EXPECT_FALSE(Window().Unloaded());
}

// Removed, back, moved away and back; nothing else changes meanwhile.
TEST_F(AutoReloadTest, ReadsAgainWhenAListFileGoesOrComes) {
  const std::string folder = folder_ / "lists";
  const std::string list = folder + "/hosts";
  std::filesystem::create_directory(folder);
  Write(list, "a.example\n");
  WriteIni("[ListFiles]\nCommon.HostsWhiteList=" + list + "\n");
  Start();
  Pass(60);
  const std::string missing =
      "Unable to read list file \"" + list + "\". File not found. The list in force stays.";
  const std::string reloaded = "Configuration reloaded because date/time of a list file changed.";
  std::filesystem::remove(list);
  Pass(60);
  EXPECT_EQ(log_, (std::vector<std::string>{missing, reloaded, log_.back()}));
  EXPECT_TRUE(Settings().HostsWhiteList.Contains("a.example"));
  log_.clear();
  Write(list, "b.example\n");
  Pass(60);
  EXPECT_EQ(log_, (std::vector<std::string>{reloaded, log_.back()}));
  EXPECT_TRUE(Settings().HostsWhiteList.Contains("b.example"));
  log_.clear();
  std::filesystem::rename(list, list + ".old");
  Pass(60);
  EXPECT_EQ(log_, (std::vector<std::string>{missing, reloaded, log_.back()}));
  log_.clear();
  Pass(120);
  EXPECT_EQ(log_, std::vector<std::string>{}) << "once";
}

// The list file's folder is missing at the start, and comes later.
TEST_F(AutoReloadTest, ReadsAgainWhenTheFolderOfAListFileComes) {
  const std::string list = folder_ / "later/hosts";
  WriteIni("IgnoreIniErrors=1\n[ListFiles]\nCommon.HostsWhiteList=" + list + "\n");
  Start();
  Pass(60);
  EXPECT_EQ(log_, std::vector<std::string>{});
  std::filesystem::create_directory(folder_ / "later");
  Write(list, "b.example\n");
  Pass(60);
  EXPECT_TRUE(Settings().HostsWhiteList.Contains("b.example"));
  Write(list, "c.example\n");
  Pass(60);
  EXPECT_TRUE(Settings().HostsWhiteList.Contains("c.example"));
  EXPECT_FALSE(Window().Unloaded());
}

TEST_F(AutoReloadTest, TellsWhatIsWrongWithTheNewFile) {
  Start();
  WriteIni("Timeout=abc\n");
  Pass(31);
  EXPECT_EQ(Reloads(), 1);
  EXPECT_EQ(err_.str(),
            "Trabex: Error parsing initialization file. Section: \"Common\", Key name: \"Timeout\", Error "
            "number: 380, Description: Value is not a number: \"abc\". The default is taken: 300\n");
  EXPECT_FALSE(Window().Unloaded());
}

TEST_F(AutoReloadTest, TellsWhyItEndsTheProgram) {
  Start();
  WriteIni("IgnoreIniErrors=0\nTimeout=abc\n");
  Pass(31);
  EXPECT_TRUE(Window().Unloaded());
  EXPECT_EQ(program_->exit_status, 1);
  EXPECT_EQ(err_.str(),
            "Trabex: Error parsing initialization file. Section: \"Common\", Key name: \"Timeout\", Error "
            "number: 380, Description: Value is not a number: \"abc\".\n");
}

TEST_F(AutoReloadTest, TellsOnceMoreThatNothingIsLogged) {
  Start();
  EXPECT_EQ(err_.str(), "");
  program_->log.Close();
  std::filesystem::remove_all(folder_ / "Log");
  WriteFile(folder_ / "Log", "no folder");
  program_->log.LogLine("x");
  const std::string told = "Trabex: Unable to open log file ";
  EXPECT_TRUE(err_.str().starts_with(told)) << err_.str();
  program_->log.LogLine("y");
  EXPECT_EQ(err_.str().rfind(told), 0U);
  WriteIni("Timeout=60\n");
  Pass(31);
  EXPECT_NE(err_.str().rfind(told), 0U);
}

}  // namespace
}  // namespace trabex
