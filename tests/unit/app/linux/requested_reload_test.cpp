// What signals ask of the running program.
#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <string>
#include <vector>

#include "support/asked_by_system.h"
#include "support/ip_address.h"
#include "support/loop_runner.h"
#include "support/plain_socket.h"
#include "unit/app/reload_fixture.h"

namespace trabex {
namespace {

class SignalledReloadTest : public AutoReloadTest {
 protected:
  const ReloadsOfTheSystem reloads_of_the_system_;
};

TEST_F(SignalledReloadTest, OfTheTimeOfTheStartIsMadeAfterIt) {
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
  names_->Deliver();  // of the check
  RunUntilIdle(program_->loop);
  EXPECT_EQ(Reloads(), 1);
  EXPECT_EQ(Settings().Timeout, 200);
  EXPECT_TRUE(PlainSocket().Connect(port_));
}

TEST_F(SignalledReloadTest, IsNoneAfterTheEnd) {
  Start();
  WriteIni("Timeout=200\n");
  Window().Form_Unload();
  log_.clear();
  raise(SIGHUP);
  raise(SIGUSR1);
  RunUntilIdle(program_->loop);
  EXPECT_EQ(Settings().Timeout, 100);
  EXPECT_EQ(log_, std::vector<std::string>());
}

}  // namespace
}  // namespace trabex
