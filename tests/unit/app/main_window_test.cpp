// The main window on loopback, with a clock and with names that the test sets.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/frmMain.h"
#include "app/program.h"
#include "base/text.h"
#include "match/ip_range.h"
#include "net/socket_errors.h"
#include "program_fixture.h"
#include "support/asked_by_system.h"
#include "support/loop_runner.h"
#include "support/open_files.h"
#include "support/plain_socket.h"

namespace trabex {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

class MainWindowTest : public ProgramTest {
 protected:
  MainWindowTest() {
    Settings().LogPath = folder_ / "Log";
    Settings().BindIP = "127.0.0.1";
    Settings().BindPort = FreePort();
    Settings().ServerPort = Settings().BindPort == 25 ? 26 : 25;
    ObserveLog(program_);
    program_.window = std::make_unique<frmMain>(program_);
  }

  Configuration& Settings() { return program_.configuration; }
  frmMain& Window() { return *program_.window; }
  std::string Bound() { return Settings().BindIP + ":" + std::to_string(Settings().BindPort); }
  // Starts to listen and waits for the outcome.
  bool Listens() {
    std::optional<bool> result;
    Window().StartListening([&result](bool listening) { result = listening; });
    EXPECT_TRUE(RunUntil(program_.loop, [&result] { return result.has_value(); }));
    return result.value_or(false);
  }
  void Pass(Milliseconds span) {
    clock_.Advance(span);
    RunUntilIdle(program_.loop);
  }

  Program program_{MakeDependencies()};
};

TEST_F(MainWindowTest, LoadLogsTheStartAndTheAddresses) {
  Settings().ServerIP = "192.0.2.7";
  ASSERT_TRUE(Window().Form_Load());
  EXPECT_EQ(log_, (std::vector<std::string>{"Trabex 3.04.012 started.",
                                            "Listen on: " + Bound() + "; Connect to: 192.0.2.7:" +
                                                std::to_string(Settings().ServerPort) + "."}));
  EXPECT_TRUE(PlainSocket().Connect(Settings().BindPort));
}

TEST_F(MainWindowTest, DumpIsWrittenBetweenTheTwo) {
  Settings().Log = 2;
  ASSERT_TRUE(Window().Form_Load());
  program_.log.Close();
  std::string text;
  for (const auto& entry : std::filesystem::directory_iterator(Settings().LogPath))
    text = ReadFile(entry.path().string());
  const std::size_t started = text.find("Trabex 3.04.012 started.\r\n");
  const std::size_t dump = text.find("\r\n; Current configuration:\r\n");
  const std::size_t section = text.find("\r\n[Common]\r\nLog = 2\r\n");
  const std::size_t listens = text.find("Listen on: ");
  ASSERT_NE(listens, std::string::npos);
  EXPECT_LT(started, dump);
  EXPECT_LT(dump, section);
  EXPECT_LT(section, listens);
}

TEST_F(MainWindowTest, NoDumpAtTheOtherLevels) {
  ASSERT_TRUE(Window().Form_Load());
  program_.log.Close();
  for (const auto& entry : std::filesystem::directory_iterator(Settings().LogPath)) {
    EXPECT_EQ(ReadFile(entry.path().string()).find("[Common]"), std::string::npos);
  }
}

TEST_F(MainWindowTest, PortInUseIsReportedWithItsNumberAndText) {
  PlainSocket other;
  Settings().BindPort = other.Bind();
  other.Listen();
  EXPECT_FALSE(Window().Form_Load());
  EXPECT_FALSE(Window().Unloaded());
  ASSERT_EQ(log_.size(), 2U);
  EXPECT_EQ(log_[1], "Error 10048 binding to " + Bound() + ". " + std::string(SocketErrorText(10048)));
}

TEST_F(MainWindowTest, AddressThatIsNotOursIsReported) {
  Settings().BindIP = "192.0.2.1";
  EXPECT_FALSE(Listens());
  ASSERT_EQ(log_.size(), 1U);
  EXPECT_EQ(log_[0], "Error 10049 binding to " + Bound() + ". " + std::string(SocketErrorText(10049)));
}

// The port is taken, so that the test does not listen for the whole network.
TEST_F(MainWindowTest, EmptyBindIPIsEveryAddress) {
  PlainSocket other;
  Settings().BindPort = other.Bind();
  other.Listen();
  Settings().BindIP.clear();
  EXPECT_FALSE(Listens());
  Window().ShowAddresses();
  ASSERT_EQ(log_.size(), 2U);
  EXPECT_THAT(log_[0], StartsWith("Error 10048 binding to 0.0.0.0:"));
  EXPECT_THAT(log_[1], StartsWith("Listen on: 0.0.0.0:"));
}

constexpr std::string_view kLoopMessage =
    "Loop detected: Server IP address and port point to listening address and port.";

// What is no loop ends at the port, which is taken.
TEST_F(MainWindowTest, ServerThatIsTheListenerIsALoop) {
  std::vector<IPAddress> own;
  ASSERT_EQ(program_.sockets.LocalAddresses(own), 0);
  std::erase_if(own, [](const IPAddress& address) { return !address.IsIPv4(); });
  ASSERT_FALSE(own.empty());
  PlainSocket other;
  Settings().BindPort = other.Bind();
  other.Listen();
  struct Row {
    std::string bind_ip;
    std::string server_ip;
    std::vector<IPAddress> resolved;
    bool loop;
  };
  const Row rows[] = {
      {"0.0.0.0", "127.0.0.1", {kIPv4Loopback}, true},
      {"0.0.0.0", "127.9.9.9", {IP("127.9.9.9")}, true},
      {"", "127.0.0.1", {kIPv4Loopback}, true},
      {"0.0.0.0", "own", {own.back()}, true},
      {"0.0.0.0", "0.0.0.0", {kIPv4Any}, true},
      {"0.0.0.0", "localhost", {kIPv4Loopback}, true},
      {"0.0.0.0", "two", {IP("192.0.2.7"), kIPv4Loopback}, true},  // any of its addresses
      {"0.0.0.0", "192.0.2.7", {IP("192.0.2.7")}, false},
      {"127.0.0.1", "127.0.0.1", {kIPv4Loopback}, true},
      {"127.0.0.1", "0.0.0.0", {kIPv4Any}, true},
      {"127.0.0.1", "two", {IP("192.0.2.7"), kIPv4Loopback}, true},
      {"127.0.0.1", "127.0.0.2", {IP("127.0.0.2")}, false},
      {"127.0.0.1", "192.0.2.7", {IP("192.0.2.7")}, false},
  };
  Settings().ServerPort = Settings().BindPort;
  for (const Row& row : rows) {
    Settings().BindIP = row.bind_ip;
    Settings().ServerIP = row.server_ip;
    names_->SetAddresses(row.server_ip, row.resolved);
    log_.clear();
    EXPECT_FALSE(Listens());
    const std::string expected = row.loop ? std::string(kLoopMessage) : "Error 10048 binding to ";
    EXPECT_THAT(log_, ElementsAre(StartsWith(expected))) << row.bind_ip << " " << row.server_ip;
  }
}

TEST_F(MainWindowTest, AnotherPortIsNeverALoopAndNeedsNoLookUp) {
  Settings().ServerIP = "127.0.0.1";
  EXPECT_TRUE(Listens());
  EXPECT_EQ(names_->Requests(), 0U);
}

TEST_F(MainWindowTest, ServerNameWithoutAnAddressEndsTheStart) {
  Settings().ServerPort = Settings().BindPort;
  Settings().ServerIP = "nowhere.test";
  names_->SetAddressError("nowhere.test", 11002);
  EXPECT_FALSE(Window().Form_Load());
  EXPECT_EQ(log_.back(), "Error 11002 binding to " + Bound() + ". " + std::string(SocketErrorText(11002)));
}

TEST_F(MainWindowTest, ListenerGoesOnWhileANameIsLookedUp) {
  ASSERT_TRUE(Listens());
  const int first_port = Settings().BindPort;
  Settings().BindPort = FreePort();
  Settings().ServerPort = Settings().BindPort;
  Settings().ServerIP = "server.test";
  names_->SetAddresses("server.test", {IP("192.0.2.7")});
  names_->HoldAnswers();
  std::optional<bool> result;
  Window().StartListening([&result](bool listening) { result = listening; });
  RunUntilIdle(program_.loop);
  EXPECT_FALSE(result.has_value());
  EXPECT_TRUE(PlainSocket().Connect(first_port));
  names_->Deliver();
  ASSERT_TRUE(result.has_value());
  EXPECT_TRUE(*result);
  EXPECT_FALSE(PlainSocket().Connect(first_port));
  EXPECT_TRUE(PlainSocket().Connect(Settings().BindPort));
}

TEST_F(MainWindowTest, EndAskedForDuringTheLookUpEndsTheStart) {
  Settings().ServerPort = Settings().BindPort;
  names_->HoldAnswers();
  program_.loop.Post([this] { AskForEnd(program_.loop); });
  EXPECT_FALSE(Window().Form_Load());
  EXPECT_TRUE(Window().Unloaded());
  EXPECT_EQ(names_->Cancelled(), 1U);
  EXPECT_EQ(program_.exit_status, 0);
  EXPECT_EQ(log_, (std::vector<std::string>{"Trabex 3.04.012 started.", "Trabex 3.04.012 stopped."}));
  program_.loop.Run();
}

TEST_F(MainWindowTest, UnloadStopsListeningAndEndsTheLoop) {
  ASSERT_TRUE(program_.LockInstance());
  ASSERT_TRUE(Window().Form_Load());
  Window().Form_Unload();
  EXPECT_EQ(log_.back(), "Trabex 3.04.012 stopped.");
  EXPECT_FALSE(program_.instance_lock);
  EXPECT_FALSE(PlainSocket().Connect(Settings().BindPort));
  const std::size_t lines = log_.size();
  Window().Form_Unload();
  EXPECT_EQ(log_.size(), lines);
  program_.loop.Run();  // returns, since no socket lingers
  EXPECT_EQ(program_.exit_status, 0);
}

TEST_F(MainWindowTest, UnloadNotifiesEveryClientAndWaitsUntilItHasTheReply) {
  PlainSocket server;
  Settings().ServerPort = server.Bind();
  server.Listen();
  ASSERT_TRUE(Window().Form_Load());
  PlainSocket client;
  ASSERT_TRUE(client.Connect(Settings().BindPort));
  ASSERT_TRUE(RunUntil(program_.loop, [this] { return Window().Sessions().Count() == 1; }));
  Window().Form_Unload();
  EXPECT_EQ(Window().Sessions().Count(), 0U);
  std::string heard;
  ASSERT_TRUE(RunUntil(program_.loop, [&] {
    heard += client.ReadNow();
    return heard.ends_with("\r\n");
  }));
  EXPECT_THAT(heard, StartsWith("421 "));
  EXPECT_EQ(log_.back(), "Trabex 3.04.012 stopped.");
  client.Close();
  server.Close();  // to which there may be a connection by now
  program_.loop.Run();
}

TEST_F(MainWindowTest, StatusTimerEndsSessionsThatTimeOut) {
  Settings().Timeout = 2;
  Settings().ServerIP = "server.test";
  names_->HoldAnswers();
  ASSERT_TRUE(Window().Form_Load());
  PlainSocket client;
  ASSERT_TRUE(client.Connect(Settings().BindPort));
  ASSERT_TRUE(RunUntil(program_.loop, [this] { return Window().Sessions().Count() == 1; }));
  Pass(Milliseconds(1900));
  EXPECT_EQ(Window().Sessions().Count(), 1U);
  Pass(Milliseconds(600));
  EXPECT_EQ(Window().Sessions().Count(), 0U);
}

TEST_F(MainWindowTest, ErrorOfTheListenerEndsTheProgramWithAStatus) {
  ASSERT_TRUE(Window().Form_Load());
  Window().Listener_Error(10050, "Network is down.");
  program_.loop.Run();
  ASSERT_EQ(log_.size(), 4U);
  EXPECT_EQ(log_[2], "L: Error 10050. Network is down.");
  EXPECT_EQ(log_[3], "Trabex 3.04.012 stopped.");
  EXPECT_EQ(program_.exit_status, 1);
}

TEST_F(MainWindowTest, EachEndRequestOfTheSystemUnloads) {
  for (int way = 0; way < WaysToAskForEnd(); ++way) {
    program_.window = std::make_unique<frmMain>(program_);
    ASSERT_TRUE(Window().Form_Load());
    AskForEnd(program_.loop, way);
    program_.loop.Run();
    EXPECT_TRUE(Window().Unloaded()) << way;
    EXPECT_EQ(log_.back(), "Trabex 3.04.012 stopped.");
  }
}

TEST_F(MainWindowTest, ExitRequestOfAnotherInstanceUnloads) {
  ASSERT_TRUE(program_.LockInstance());
  ASSERT_TRUE(Window().Form_Load());
  EXPECT_EQ(RequestExit(InstanceName(1)), ExitRequest::kNoInstance);
  EXPECT_EQ(RequestExit(InstanceName(Settings().BindPort)), ExitRequest::kMade);
  program_.loop.Run();
  EXPECT_TRUE(Window().Unloaded());
}

TEST_F(MainWindowTest, SecondInstanceOnThePortIsRefusedAndSaysSo) {
  Program second(program_.dependencies);
  second.configuration.BindPort = Settings().BindPort;
  second.configuration.Log = 0;
  std::vector<std::string> messages;
  second.log.SetObserver([&messages](std::string_view message) { messages.emplace_back(message); });
  ASSERT_TRUE(program_.LockInstance());
  EXPECT_FALSE(second.LockInstance());
  EXPECT_EQ(messages, std::vector<std::string>{
                          "The instance of this application listening on the same port already running."});
  second.configuration.BindPort = FreePort();
  EXPECT_TRUE(second.LockInstance());
  // The own lock is no obstacle, and is given back with the change of the port.
  EXPECT_TRUE(program_.LockInstance());
  Settings().BindPort = FreePort();
  EXPECT_TRUE(program_.LockInstance());
}

TEST_F(MainWindowTest, IdleLogFileIsClosed) {
  ASSERT_TRUE(Window().Form_Load());
  const auto open_logs = [this] { return OpenFilesIn(Settings().LogPath); };
  EXPECT_EQ(open_logs(), 1U);
  Pass(Milliseconds(4000));
  program_.log.LogLine("another line");  // the five seconds begin anew
  Pass(Milliseconds(4999));
  EXPECT_EQ(open_logs(), 1U);
  Pass(Milliseconds(1));
  EXPECT_EQ(open_logs(), 0U);
}

class GreyListingTimerTest : public MainWindowTest, private GreyListingRecords {
 protected:
  GreyListingTimerTest() {
    Settings().GreyListing.SaveInterval = 10 / kMinutesPerDay;
    program_.greylisting_records = this;
  }
  ~GreyListingTimerTest() override { Window().Form_Unload(); }

  // The minutes, counted from the load, whose ticks save.
  std::vector<int> SavingMinutes(int count) {
    std::vector<int> minutes;
    for (int minute = 1; minute <= count; ++minute) {
      const int before = background_saves_;
      Pass(std::chrono::minutes(1));
      if (background_saves_ != before) minutes.push_back(minute);
    }
    return minutes;
  }

  int background_saves_ = 0;
  bool save_succeeds_ = true;
  bool has_changed_ = true;
  std::string kept_in_;                   // the database that the records are saved to
  std::vector<std::string> saved_after_;  // the last log line at each save at the end

 private:
  void Load() override {}
  void Clear() override {}
  bool SaveInBackground(std::function<void(DateTime)> saved) override {
    if (!has_changed_) return false;
    ++background_saves_;
    if (save_succeeds_) saved(clock_.UniversalNow());
    return true;
  }
  std::string Database() const override { return kept_in_; }
  GreyListingSaveResult FailToSave() override { return {}; }
  GreyListingSaveResult Save() override {
    saved_after_.push_back(log_.back());
    return {GreyListingSaveResult::Kind::kSaved, clock_.UniversalNow()};
  }
};

TEST_F(GreyListingTimerTest, SavesAtTheFirstTickAfterTheInterval) {
  Settings().GreyListing.Enabled = true;
  ASSERT_TRUE(Window().Form_Load());
  EXPECT_EQ(SavingMinutes(35), (std::vector<int>{10, 20, 30}));
}

TEST_F(GreyListingTimerTest, FailedSaveIsTriedAgainAtTheNextTick) {
  Settings().GreyListing.Enabled = true;
  ASSERT_TRUE(Window().Form_Load());
  save_succeeds_ = false;
  EXPECT_EQ(SavingMinutes(12), (std::vector<int>{10, 11, 12}));
  save_succeeds_ = true;
  EXPECT_EQ(SavingMinutes(12), (std::vector<int>{1, 11}));
}

TEST_F(GreyListingTimerTest, ClockSetBackDoesNotPutTheSaveOff) {
  Settings().GreyListing.Enabled = true;
  ASSERT_TRUE(Window().Form_Load());
  EXPECT_EQ(SavingMinutes(4), std::vector<int>{});
  clock_.SetNow(clock_.Now() - 1);
  EXPECT_EQ(SavingMinutes(12), (std::vector<int>{1, 11}));
}

TEST_F(GreyListingTimerTest, SaveBeforeAReloadCountsAsTheLastOne) {
  Settings().GreyListing.Enabled = true;
  ASSERT_TRUE(Window().Form_Load());
  EXPECT_EQ(SavingMinutes(4), std::vector<int>{});
  kept_in_ = "elsewhere.gldb";
  EXPECT_TRUE(program_.SaveGreyListing());
  EXPECT_EQ(SavingMinutes(12), std::vector<int>{10});
  EXPECT_EQ(SavingMinutes(4), std::vector<int>{});
  kept_in_ = Settings().GreyListing.Database;
  EXPECT_FALSE(program_.SaveGreyListing());
  EXPECT_EQ(SavingMinutes(12), std::vector<int>{10});
}

TEST_F(GreyListingTimerTest, ReloadSavesInTheBackgroundWhereTheDatabaseStays) {
  Settings().GreyListing.Database = "here.gldb";
  const struct {
    bool enabled;
    bool has_changed;
    const char* database;
    bool loads;  // what is saved in the background is not to be loaded, nor what has not changed
    int in_background;
    std::size_t in_place;
  } rows[] = {
      {true, true, "here.gldb", false, 1, 0},
      {true, true, "there.gldb", true, 0, 1},
      {true, false, "here.gldb", false, 0, 0},
      {false, true, "here.gldb", true, 0, 1},
  };
  log_.emplace_back("a line");
  for (const auto& row : rows) {
    Settings().GreyListing.Enabled = row.enabled;
    has_changed_ = row.has_changed;
    background_saves_ = 0;
    saved_after_.clear();
    kept_in_ = row.database;
    EXPECT_EQ(program_.SaveGreyListing(), row.loads);
    EXPECT_EQ(background_saves_, row.in_background);
    EXPECT_EQ(saved_after_.size(), row.in_place);
  }
  Settings().GreyListing.Enabled = false;
}

TEST_F(GreyListingTimerTest, NothingIsSavedWithoutGreylisting) {
  ASSERT_TRUE(Window().Form_Load());
  EXPECT_EQ(SavingMinutes(12), std::vector<int>{});
  Window().Form_Unload();
  EXPECT_THAT(saved_after_, ElementsAre());
}

TEST_F(GreyListingTimerTest, TimerFollowsTheSetting) {
  ASSERT_TRUE(Window().Form_Load());
  Settings().GreyListing.Enabled = true;
  Window().EnableGreyListingTimer();
  EXPECT_EQ(SavingMinutes(12), std::vector<int>{10});
  Settings().GreyListing.Enabled = false;
  Window().EnableGreyListingTimer();
  EXPECT_EQ(SavingMinutes(12), std::vector<int>{});
}

TEST_F(GreyListingTimerTest, UnloadSavesBetweenTheSessionsEndAndItsLastLine) {
  PlainSocket server;
  Settings().ServerPort = server.Bind();
  server.Listen();
  Settings().GreyListing.Enabled = true;
  ASSERT_TRUE(Window().Form_Load());
  PlainSocket client;
  ASSERT_TRUE(client.Connect(Settings().BindPort));
  ASSERT_TRUE(RunUntil(program_.loop, [this] { return Window().Sessions().Count() == 1; }));
  Window().Form_Unload();
  EXPECT_THAT(saved_after_, ElementsAre(HasSubstr("Disconnected.")));
  EXPECT_EQ(log_.back(), "Trabex 3.04.012 stopped.");
}

}  // namespace
}  // namespace trabex
