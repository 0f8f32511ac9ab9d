// The automatic reload, with a clock that the test sets; the files are real ones.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "app/frmMain.h"
#include "app/program.h"
#include "greylist/database_file.h"
#include "support/default_hang_up.h"
#include "support/fake_clock.h"
#include "support/fake_name_lookup.h"
#include "support/ip_address.h"
#include "support/loop_runner.h"
#include "support/plain_socket.h"
#include "support/temp_folder.h"
#include "support/test_peer.h"

namespace trabex {
namespace {

using std::chrono::seconds;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr const char* kReloaded = "Configuration reloaded because date/time of initialization file changed.";

class AutoReloadTest : public testing::Test {
 protected:
  AutoReloadTest() : port_(FreePort()) {
    WriteIni("Timeout=100\n");
    program_ = std::make_unique<Program>(Surroundings{.clock = clock_,
                                                      .out = out_,
                                                      .err = err_,
                                                      .program_directory = folder_.Path(),
                                                      .program_name = "Trabex",
                                                      .make_names = [this](EventLoop& loop) {
                                                        auto names = std::make_unique<FakeNameLookup>(loop);
                                                        names_ = names.get();
                                                        return names;
                                                      }});
    program_->log.SetObserver([this](std::string_view message) { log_.emplace_back(message); });
    program_->ini_file.path = ini_;
  }

  // Section Common with the test's addresses and `more`.
  std::string Ini(const std::string& more) const {
    return "[Common]\nBindIP=127.0.0.1\nBindPort=" + std::to_string(port_) +
           "\nServerPort=" + std::to_string(ServerPort()) + "\nLogPath=" + (folder_ / "Log") + "\n" + more;
  }
  void WriteIni(const std::string& more) { Write(ini_, Ini(more)); }
  // The file's date is that of the system's clock, which does not stand still between two writes of a test
  // for long enough; so it is set.
  void Write(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::trunc) << text;
    std::filesystem::last_write_time(path, next_date_ += seconds(10));
  }
  void Start() {
    ASSERT_EQ(program_->ReadEarlyKeys(), EarlyKeysResult::kRead);
    ASSERT_TRUE(program_->LockInstance());
    ASSERT_EQ(LoadConfiguration(program_->MakeLoadEnvironment(), Settings()), LoadResult::kLoaded);
    program_->window = std::make_unique<frmMain>(*program_);
    ASSERT_TRUE(program_->window->Form_Load());
    log_.clear();
  }
  // Lets the clock run, second by second.
  void Pass(int count) {
    for (int i = 0; i < count; ++i) {
      clock_.Advance(seconds(1));
      RunUntilIdle(program_->loop);
    }
  }
  long Reloads() const { return std::count(log_.begin(), log_.end(), kReloaded); }
  Configuration& Settings() { return program_->configuration; }
  frmMain& Window() { return *program_->window; }

  TempFolder folder_;
  const std::string ini_ = folder_ / "Trabex.ini";
  // A port with nobody behind it, unless a test has a server.
  int ServerPort() const { return server_port_ != 0 ? server_port_ : port_ == 25 ? 26 : 25; }

  const int port_;
  int server_port_ = 0;
  FakeClock clock_;
  std::filesystem::file_time_type next_date_ = std::filesystem::file_time_type::clock::now();
  std::ostringstream out_;
  std::ostringstream err_;
  FakeNameLookup* names_ = nullptr;
  std::vector<std::string> log_;
  std::unique_ptr<Program> program_;
};

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
  names_->SetAddresses("127.0.0.1", {0x7F000001});
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

TEST_F(AutoReloadTest, GreylistingSwitchedOnIsInForce) {
  Start();
  WriteIni("[GreyListing]\nEnabled=1\n");
  Pass(60);
  EXPECT_EQ(Reloads(), 1);
  EXPECT_TRUE(Settings().GreyListing.Enabled);
  EXPECT_FALSE(Window().Unloaded());
}

TEST_F(AutoReloadTest, RecordsGoOnThroughAReloadAndAreSaved) {
  WriteIni("[GreyListing]\nEnabled=1\nDelay=0\n");
  Start();
  EXPECT_TRUE(
      program_->greylisting.ShouldDefer("client.test", IP("192.0.2.1"), "s@remote.test", "r@local.test"));
  const std::string database = Settings().GreyListing.Database;
  WriteIni("Timeout=200\n[GreyListing]\nEnabled=1\nDelay=0\n");
  Pass(60);
  ASSERT_EQ(Reloads(), 1);
  EXPECT_EQ(Settings().Timeout, 200);
  EXPECT_TRUE(RunUntil(program_->loop, [&] { return std::filesystem::exists(database); }));
  EXPECT_EQ(LoadDatabaseFile(database).Count(), 1U);
  EXPECT_FALSE(
      program_->greylisting.ShouldDefer("client.test", IP("192.0.2.1"), "s@remote.test", "r@local.test"));
}

TEST_F(AutoReloadTest, RecordsThatCannotBeSavedStayInMemory) {
  // Where the database stays the save is made in the background, else before the load.
  for (const char* other_database : {"", "Database=other.gldb\n"}) {
    SCOPED_TRACE(other_database);
    WriteIni("[GreyListing]\nEnabled=1\n");
    Start();
    EXPECT_TRUE(program_->greylisting.ShouldDefer("", IP("192.0.2.1"), "s@remote.test", "r@local.test"));
    const std::string database = Settings().GreyListing.Database;
    const std::filesystem::path in_the_way = database + "new";
    std::filesystem::create_directories(in_the_way);
    log_.clear();
    WriteIni(std::string("Timeout=200\n[GreyListing]\nEnabled=1\n") + other_database);
    Pass(60);
    ASSERT_EQ(Reloads(), 1);
    EXPECT_EQ(Settings().Timeout, 200);
    EXPECT_TRUE(RunUntil(program_->loop, [&] {
      return testing::Matches(Contains(StartsWith("Unable to save GreyListing database. Error 75.")))(log_);
    }));

    std::filesystem::remove(in_the_way);
    Window().Form_Unload();
    EXPECT_EQ(LoadDatabaseFile(database).Count(), 1U);
    std::filesystem::remove(database);
  }
}

TEST_F(AutoReloadTest, RecordsAreNotLoadedAnewWhereTheDatabaseStays) {
  const std::string greylisting = "[GreyListing]\nEnabled=1\nDelay=0\n";
  WriteIni(greylisting);
  Start();
  EXPECT_TRUE(
      program_->greylisting.ShouldDefer("client.test", IP("192.0.2.1"), "s@remote.test", "r@local.test"));
  ASSERT_EQ(program_->greylisting.Save().kind, GreyListingSaveResult::Kind::kSaved);
  std::filesystem::remove(Settings().GreyListing.Database);
  log_.clear();
  WriteIni("Timeout=200\n" + greylisting);
  Pass(60);
  ASSERT_EQ(Reloads(), 1);
  EXPECT_THAT(log_, Not(Contains(HasSubstr("GreyListing database"))));
  EXPECT_FALSE(
      program_->greylisting.ShouldDefer("client.test", IP("192.0.2.1"), "s@remote.test", "r@local.test"));
}

TEST_F(AutoReloadTest, RecordsOutliveAReloadThatFails) {
  for (const char* bad : {"nonsense\n[GreyListing]\nEnabled=1\n", "[GreyListing]\nEnabled=1\nTTL=x\n",
                          "[GreyListing]\nEnabled=0\nTTL=x\n"}) {
    SCOPED_TRACE(bad);
    WriteIni("[GreyListing]\nEnabled=1\n");
    Start();
    EXPECT_TRUE(program_->greylisting.ShouldDefer("", IP("192.0.2.1"), "s@remote.test", "r@local.test"));
    const std::string database = folder_ / "GreyListing/GreyListing.gldb";
    WriteIni(std::string("IgnoreIniErrors=0\n") + bad);
    Pass(60);
    EXPECT_TRUE(Window().Unloaded());
    EXPECT_EQ(LoadDatabaseFile(database).Count(), 1U);
    program_->greylisting.Clear();
    std::filesystem::remove(database);
  }
}

// Switched off nothing is judged by them, but they are there when it is switched on again.
TEST_F(AutoReloadTest, RecordsThatCannotBeSavedStayWithGreylistingOff) {
  const std::string in_force = "[GreyListing]\nEnabled=1\nDelay=0\n";
  for (const std::string& next : {std::string(), in_force, in_force + "Database=other.gldb\n"}) {
    SCOPED_TRACE(next);
    WriteIni(in_force);
    Start();
    EXPECT_TRUE(program_->greylisting.ShouldDefer("", IP("192.0.2.1"), "s@remote.test", "r@local.test"));
    const std::string database = Settings().GreyListing.Database;
    const std::filesystem::path in_the_way = database + "new";
    std::filesystem::create_directories(in_the_way);
    WriteIni("");
    Pass(60);
    ASSERT_EQ(Reloads(), 1);
    EXPECT_THAT(log_, Contains(StartsWith("Unable to save GreyListing database. Error 75.")));

    std::filesystem::remove(in_the_way);
    if (!next.empty()) {
      WriteIni(next);
      Pass(60);
      ASSERT_EQ(Reloads(), 2);
    }
    Window().Form_Unload();
    EXPECT_EQ(LoadDatabaseFile(database).Count(), 1U);
    program_->greylisting.Clear();
    std::filesystem::remove(database);
  }
}

// Else all later saves would go to the old place, where the next start does not look.
TEST_F(AutoReloadTest, AMoveOfTheDatabaseThatFailedIsMadeByTheNextReload) {
  WriteIni("[GreyListing]\nEnabled=1\n");
  Start();
  EXPECT_TRUE(program_->greylisting.ShouldDefer("", IP("192.0.2.1"), "s@remote.test", "r@local.test"));
  const std::string before = Settings().GreyListing.Database;
  const std::filesystem::path in_the_way = before + "new";
  std::filesystem::create_directories(in_the_way);
  WriteIni("[GreyListing]\nEnabled=1\nDatabase=other.gldb\n");
  Pass(60);
  ASSERT_EQ(Reloads(), 1);
  ASSERT_FALSE(std::filesystem::exists(before));

  std::filesystem::remove(in_the_way);
  WriteIni("Timeout=200\n[GreyListing]\nEnabled=1\nDatabase=other.gldb\n");
  Pass(60);
  ASSERT_EQ(Reloads(), 2);
  EXPECT_EQ(LoadDatabaseFile(before).Count(), 1U);
  EXPECT_TRUE(program_->greylisting.ShouldDefer("", IP("192.0.2.1"), "new@remote.test", "r@local.test"));
  Window().Form_Unload();
  EXPECT_EQ(LoadDatabaseFile(before).Count(), 1U);
  ASSERT_TRUE(std::filesystem::exists(Settings().GreyListing.Database));
  EXPECT_EQ(LoadDatabaseFile(Settings().GreyListing.Database).Count(), 1U);
}

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

// A change of which nobody told yet when the second look comes, as on a folder that does not notify.
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

// What SIGHUP does without a window.
class RequestedReloadTest : public AutoReloadTest {
 protected:
  void Ask() {
    ASSERT_EQ(raise(SIGHUP), 0);
    RunUntilIdle(program_->loop);
  }

  const DefaultHangUp hang_up_;
};

TEST_F(RequestedReloadTest, IsMadeAtOnce) {
  Start();
  WriteIni("Timeout=200\n");
  Ask();
  EXPECT_EQ(Settings().Timeout, 200);
  EXPECT_EQ(Reloads(), 1);
  EXPECT_THAT(log_.back(), StartsWith("Listen on: 127.0.0.1:" + std::to_string(port_)));
  EXPECT_FALSE(Window().Unloaded());
  Pass(120);
  EXPECT_EQ(Reloads(), 1);
}

TEST_F(RequestedReloadTest, IsMadeOfAFileThatDidNotChangeToo) {
  Start();
  Ask();
  EXPECT_EQ(Reloads(), 0);
  EXPECT_THAT(log_, ElementsAre("Configuration reloaded; date/time of initialization file has not changed.",
                                StartsWith("Listen on: ")));
}

TEST_F(RequestedReloadTest, TakesThePlaceOfTheOneThatIsDue) {
  Start();
  WriteIni("Timeout=200\n");
  Pass(20);
  Ask();
  EXPECT_EQ(Reloads(), 1);
  log_.clear();
  Pass(60);
  EXPECT_THAT(log_, ElementsAre());
  WriteIni("Timeout=300");
  Pass(35);  // it is waited for, since its last line has no end
  EXPECT_EQ(Settings().Timeout, 200);
  Ask();
  EXPECT_EQ(Settings().Timeout, 300);
  EXPECT_EQ(Reloads(), 1);
  log_.clear();
  Pass(60);
  EXPECT_THAT(log_, ElementsAre());
}

TEST_F(RequestedReloadTest, DoesNotNeedTheAutomaticOne) {
  WriteIni("AutoReload=0\nTimeout=100\n");
  Start();
  WriteIni("AutoReload=0\nTimeout=200\n");
  Pass(60);
  EXPECT_EQ(Settings().Timeout, 100);
  Ask();
  EXPECT_EQ(Settings().Timeout, 200);
  WriteIni("AutoReload=1\nTimeout=300\n");
  Pass(60);
  EXPECT_EQ(Settings().Timeout, 200);
  Ask();
  EXPECT_EQ(Settings().Timeout, 300);
  WriteIni("AutoReload=0\nTimeout=400\n");
  Pass(60);
  EXPECT_EQ(Settings().Timeout, 400) << "switched on by a reload";
  WriteIni("AutoReload=0\nTimeout=500\n");
  Pass(60);
  EXPECT_EQ(Settings().Timeout, 400) << "and off";
}

TEST_F(RequestedReloadTest, WhoAsksHasWrittenTheLastLine) {
  Start();
  WriteIni("Timeout=200");
  Ask();
  EXPECT_EQ(Settings().Timeout, 200);
}

TEST_F(RequestedReloadTest, AFileThatIsNoneIsRefusedEachTime) {
  Start();
  Write(ini_, "; nothing\n");
  Ask();
  Ask();
  EXPECT_EQ(std::count_if(
                log_.begin(), log_.end(),
                [](const std::string& line) { return line.ends_with("the configuration in force stays."); }),
            2);
  std::filesystem::remove(ini_);
  Ask();
  EXPECT_THAT(log_.back(), HasSubstr("Error number: 53, Description: File not found"));
  EXPECT_EQ(Settings().Timeout, 100);
  EXPECT_FALSE(Window().Unloaded());
}

TEST_F(RequestedReloadTest, ThatFailsEndsTheProgram) {
  Start();
  WriteIni("IgnoreIniErrors=0\nTimeout=many\n");
  Ask();
  EXPECT_TRUE(Window().Unloaded());
  EXPECT_EQ(program_->exit_status, 1);
  EXPECT_THAT(log_, Contains(HasSubstr("Value is not a number: \"many\".")));
}

// The first one moves the listener as soon as the name is found; the second one must not make it forget that.
TEST_F(RequestedReloadTest, WaitsForTheLookUpOfTheOneBefore) {
  Start();
  names_->HoldAnswers();
  const int other = FreePort();
  const auto with_server = [&](const std::string& server) {
    return "[Common]\nBindIP=127.0.0.1\nBindPort=" + std::to_string(other) +
           "\nServerPort=" + std::to_string(other) + "\nServerIP=" + server +
           "\nLogPath=" + (folder_ / "Log") + "\n";
  };
  Write(ini_, with_server("first.test"));
  Ask();
  EXPECT_EQ(Reloads(), 1);
  EXPECT_TRUE(PlainSocket().Connect(port_)) << "as long as the name is looked up";
  Write(ini_, with_server("second.test"));
  Ask();
  Ask();
  EXPECT_EQ(Reloads(), 1);
  names_->SetAddresses("first.test", {0x0A000001});
  names_->SetAddresses("second.test", {0x0A000002});
  EXPECT_EQ(names_->Deliver(), 1U);
  EXPECT_EQ(Reloads(), 2);
  RunUntilIdle(program_->loop);
  names_->Deliver();
  EXPECT_TRUE(PlainSocket().Connect(other));
  EXPECT_FALSE(PlainSocket().Connect(port_));
  EXPECT_EQ(Settings().ServerIP, "second.test");
  EXPECT_FALSE(Window().Unloaded());
}

TEST_F(RequestedReloadTest, OfTheTimeOfTheStartIsMadeAfterIt) {
  server_port_ = port_;
  WriteIni("ServerIP=server.test\nTimeout=100\n");
  ASSERT_EQ(program_->ReadEarlyKeys(), EarlyKeysResult::kRead);
  ASSERT_TRUE(program_->LockInstance());
  ASSERT_EQ(LoadConfiguration(program_->MakeLoadEnvironment(), Settings()), LoadResult::kLoaded);
  program_->window = std::make_unique<frmMain>(*program_);
  WriteIni("ServerIP=server.test\nTimeout=200\n");
  names_->SetAddresses("server.test", {0x0A000001});
  names_->HoldAnswers();
  // In the loop, while the start waits for the name of the server.
  int turns = 0;
  Timer turning(program_->loop, Milliseconds(0), [&] {
    ++turns;
    if (turns == 1) raise(SIGHUP);
    if (turns < 3) return;
    EXPECT_EQ(Settings().Timeout, 100);
    EXPECT_EQ(Reloads(), 0);
    turning.Disable();
    names_->Deliver();
  });
  turning.Enable();
  ASSERT_TRUE(program_->window->Form_Load());
  RunUntilIdle(program_->loop);
  EXPECT_EQ(Reloads(), 1);
  EXPECT_EQ(Settings().Timeout, 200);
  EXPECT_TRUE(PlainSocket().Connect(port_));
}

TEST_F(RequestedReloadTest, IsNoneAfterTheEnd) {
  Start();
  WriteIni("Timeout=200\n");
  Window().Form_Unload();
  log_.clear();
  Ask();
  raise(SIGUSR1);
  RunUntilIdle(program_->loop);
  EXPECT_EQ(Settings().Timeout, 100);
  EXPECT_EQ(log_, std::vector<std::string>());
}

// A client and a server that speak to each other through the program while it reloads.
TEST_F(AutoReloadTest, OpenSessionsGoOnAndNewSettingsActInThem) {
  TestListener server_listener;
  server_port_ = server_listener.Port();
  WriteIni("MaxRecipientsLocal=0\n");
  Start();
  TestPeer client = TestPeer::Connect(static_cast<std::uint16_t>(port_));
  TestPeer server;
  ASSERT_TRUE(RunUntil(program_->loop, [&] {
    server = server_listener.Accept();
    return server.Open();
  }));
  const auto said = [&](TestPeer& from, std::string_view text, TestPeer& to) {
    from.Send(text);
    to.Received().clear();
    return RunUntil(program_->loop, [&] {
      to.Poll();
      return to.Received().ends_with("\r\n");
    });
  };
  ASSERT_TRUE(said(server, "220 hi\r\n", client));
  for (const char* command : {"HELO x\r\n", "MAIL FROM:<a@b.test>\r\n", "RCPT TO:<u@b.test>\r\n"}) {
    ASSERT_TRUE(said(client, command, server)) << command;
    ASSERT_TRUE(said(server, "250 ok\r\n", client)) << command;
  }
  WriteIni("MaxRecipientsLocal=1\n");
  Pass(60);
  ASSERT_EQ(Reloads(), 1);
  ASSERT_TRUE(said(client, "RCPT TO:<v@b.test>\r\n", client));
  EXPECT_EQ(client.Received(), "452 4.5.3 Too many recipients.\r\n");
  ASSERT_TRUE(said(client, "DATA\r\n", server));
  ASSERT_TRUE(said(server, "354 go on\r\n", client));

  // A megabyte of content, with a reload in its middle.
  server.Received().clear();
  const std::string line = std::string(98, 'x') + "\r\n";
  std::string sent;
  for (int i = 0; i < 10000; ++i) {
    if (i == 5000) {
      WriteIni("MaxRecipientsLocal=2\n");
      Pass(60);
      ASSERT_EQ(Reloads(), 2);
    }
    std::string_view left = line;
    ASSERT_TRUE(RunUntil(program_->loop, [&] {
      server.Poll();
      left.remove_prefix(client.Send(left));
      return left.empty();
    }));
    sent += line;
  }
  client.Send(".\r\n");
  ASSERT_TRUE(RunUntil(program_->loop, [&] {
    server.Poll();
    return server.Received().ends_with("\r\n.\r\n");
  }));
  const std::size_t begin = server.Received().find("\r\nxxx");
  ASSERT_NE(begin, std::string::npos);
  EXPECT_TRUE(server.Received().substr(begin + 2) == sent + ".\r\n");
}

// Memory in use; a sanitizer's allocator tells nothing here and looks for leaks itself.
std::size_t MemoryInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

TEST_F(AutoReloadTest, TwoHundredReloadsUnderLoadLeaveNothingBehind) {
  TestListener server_listener;
  server_port_ = server_listener.Port();
  const auto settings = [](int round) {
    return "Timeout=" + std::to_string(100 + round % 7) +
           "\nIPBlackList=192.0.2.0/24,198.51.100.7\nSendersBlackList=*@bad.test,\"a "
           "b\"\n[GreyListing]\nEnabled=1\n"
           "[ResponseChanges]\nBadSeq=<Bad>=<Worse>\n[SenderReplacements.Local]\n*@x=y@z\n";
  };
  WriteIni(settings(0));
  Start();
  std::size_t settled = 0;
  for (int round = 1; round <= 200; ++round) {
    // Sessions come and go while it reloads.
    std::vector<TestPeer> peers;
    for (int i = 0; i < 5; ++i) {
      peers.push_back(TestPeer::Connect(static_cast<std::uint16_t>(port_)));
      peers.back().Send("HELO x\r\nNOOP\r\n");
    }
    WriteIni(settings(round));
    Pass(48);
    for (TestPeer server = server_listener.Accept(); server.Open(); server = server_listener.Accept()) {
    }
    peers.clear();
    RunUntilIdle(program_->loop);
    ASSERT_EQ(Reloads(), 1) << "round " << round;
    log_.clear();
    if (round == 20) settled = MemoryInUse();
  }
  EXPECT_EQ(Settings().Timeout, 100 + 200 % 7);
  RecordProperty("memory_in_use_after_20", std::to_string(settled));
  RecordProperty("memory_in_use_after_200", std::to_string(MemoryInUse()));
  EXPECT_LE(MemoryInUse(), settled + 65536);
}

}  // namespace
}  // namespace trabex
