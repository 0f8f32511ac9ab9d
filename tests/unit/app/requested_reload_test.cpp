// The reload on request.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "reload_fixture.h"
#include "support/default_hang_up.h"
#include "support/loop_runner.h"
#include "support/plain_socket.h"

namespace trabex {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

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
  names_->SetAddresses("first.test", {IP("10.0.0.1")});
  names_->SetAddresses("second.test", {IP("10.0.0.2")});
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
  ASSERT_EQ(LoadConfiguration(program_->MakeLoadDependencies(), Settings()), LoadResult::kLoaded);
  program_->window = std::make_unique<frmMain>(*program_);
  WriteIni("ServerIP=server.test\nTimeout=200\n");
  names_->SetAddresses("server.test", {IP("10.0.0.1")});
  names_->HoldAnswers();
  // In the loop, while the start waits for the name of the server.
  int iterations = 0;
  Timer turning(program_->loop, Milliseconds(0), [&] {
    ++iterations;
    if (iterations == 1) raise(SIGHUP);
    if (iterations < 3) return;
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

}  // namespace
}  // namespace trabex
