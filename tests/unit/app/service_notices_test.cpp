#include "app/service_notices.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "app/requested_reload.h"
#include "reload_fixture.h"
#include "support/fake_clock.h"
#include "support/loop_runner.h"

namespace trabex {
namespace {

using testing::ElementsAre;

using enum ServiceState;

// What a service manager was told.
struct Told {
  std::vector<ServiceState> states;
  bool takes = true;
};

class FakeManager final : public ServiceManager {
 public:
  FakeManager(Told& told, std::optional<Milliseconds> watchdog_time)
      : told_(told), watchdog_time_(watchdog_time) {}

  bool Tell(ServiceState state) override {
    if (told_.takes) told_.states.push_back(state);
    return told_.takes;
  }
  std::optional<Milliseconds> WatchdogTime() const override { return watchdog_time_; }

 private:
  Told& told_;
  std::optional<Milliseconds> watchdog_time_;
};

class ServiceNoticesTest : public testing::Test {
 protected:
  ServiceNotices& Make(std::optional<Milliseconds> watchdog_time = std::nullopt) {
    return notices_.emplace(loop_, std::make_unique<FakeManager>(told_, watchdog_time));
  }
  void Pass(Milliseconds span) {
    clock_.Advance(span);
    RunUntilIdle(loop_);
  }

  FakeClock clock_;
  EventLoop loop_{clock_};
  Told told_;
  std::optional<ServiceNotices> notices_;
};

TEST_F(ServiceNoticesTest, TellsStartReloadAndEndOnceEach) {
  ServiceNotices& notices = Make();
  notices.Reloading();
  notices.Ready();
  notices.Ready();
  notices.Reloading();
  notices.Reloading();
  notices.Ready();
  notices.Stopping();
  notices.Stopping();
  notices.Ready();
  notices.Reloading();
  EXPECT_THAT(told_.states, ElementsAre(kReady, kReloading, kReady, kStopping));
}

TEST_F(ServiceNoticesTest, AStartThatFailedWasNeverThere) {
  Make().Stopping();
  EXPECT_THAT(told_.states, ElementsAre());
}

TEST_F(ServiceNoticesTest, GivesSignsOfLifeAtHalfTheWatchdogsTimeFromTheStartOn) {
  ServiceNotices& notices = Make(Milliseconds(60000));
  Pass(Milliseconds(30000));
  EXPECT_THAT(told_.states, ElementsAre());
  notices.Ready();
  Pass(Milliseconds(29999));
  EXPECT_THAT(told_.states, ElementsAre(kReady));
  Pass(Milliseconds(1));
  EXPECT_THAT(told_.states, ElementsAre(kReady, kAlive));
  notices.Reloading();
  Pass(Milliseconds(30000));
  notices.Ready();
  notices.Stopping();
  Pass(Milliseconds(30000));
  EXPECT_THAT(told_.states, ElementsAre(kReady, kAlive, kReloading, kAlive, kReady, kStopping, kAlive));
}

TEST_F(ServiceNoticesTest, WhatTheManagerCannotTakeIsToldLater) {
  ServiceNotices& notices = Make(Milliseconds(60000));
  told_.takes = false;
  notices.Ready();
  Pass(Milliseconds(30000));
  notices.Reloading();
  Pass(Milliseconds(1000));
  told_.takes = true;
  Pass(Milliseconds(200));
  EXPECT_THAT(told_.states, ElementsAre(kReloading));
  notices.Ready();
  Pass(Milliseconds(2000));
  EXPECT_THAT(told_.states, ElementsAre(kReloading, kReady));
}

TEST_F(ServiceNoticesTest, WithoutAManagerNothingIsDone) {
  ServiceNotices& notices = notices_.emplace(loop_, nullptr);
  notices.Ready();
  notices.Reloading();
  notices.Stopping();
  EXPECT_FALSE(loop_.RunOnce(Milliseconds(0)));
}

// The whole program.
class NoticesOfProgramTest : public AutoReloadTest {
 protected:
  NoticesOfProgramTest() {
    Dependencies dependencies = MakeDependencies();
    dependencies.find_service_manager = [this] {
      return std::make_unique<FakeManager>(told_, Milliseconds(60000));
    };
    program_ = std::make_unique<Program>(std::move(dependencies));
    ObserveLog(*program_);
    program_->ini_file.path = ini_;
  }
  ~NoticesOfProgramTest() override { program_.reset(); }

  std::vector<ServiceState> TakeTold() { return std::exchange(told_.states, {}); }
  bool Reload() {
    std::optional<bool> made;
    Window().RequestReload([&made](const RequestedReload::Outcome& outcome) { made = outcome.made; });
    EXPECT_TRUE(RunUntil(program_->loop, [&made] { return made.has_value(); }));
    return made.value_or(false);
  }

  Told told_;
};

TEST_F(NoticesOfProgramTest, ReadyIsToldWhenItListens) {
  Start();
  EXPECT_THAT(TakeTold(), ElementsAre(kReady));
  EXPECT_TRUE(Window().Listening());
  Pass(30);
  EXPECT_THAT(TakeTold(), ElementsAre(kAlive));
  Window().Form_Unload();
  EXPECT_THAT(TakeTold(), ElementsAre(kStopping));
}

TEST_F(NoticesOfProgramTest, AStartThatCannotListenIsNotReady) {
  Settings().BindIP = "192.0.2.1";
  program_->window = std::make_unique<frmMain>(*program_);
  EXPECT_FALSE(program_->window->Form_Load());
  program_->window->Form_Unload();
  EXPECT_THAT(TakeTold(), ElementsAre());
}

TEST_F(NoticesOfProgramTest, AReloadOnRequestIsToldWhicheverWayItEnds) {
  Start();
  TakeTold();
  WriteIni("Timeout=200\n");
  EXPECT_TRUE(Reload());
  EXPECT_THAT(TakeTold(), ElementsAre(kReloading, kReady));
  WriteIni("Timeout=never\n");
  EXPECT_FALSE(Reload());
  EXPECT_THAT(TakeTold(), ElementsAre(kReloading, kReady));
  std::filesystem::remove(ini_);
  EXPECT_FALSE(Reload());
  EXPECT_THAT(TakeTold(), ElementsAre(kReloading, kReady));
}

TEST_F(NoticesOfProgramTest, AnAutomaticReloadIsToldToo) {
  Start();
  WriteIni("Timeout=200\n");
  Pass(120);
  EXPECT_EQ(Reloads(), 1);
  std::vector<ServiceState> told = TakeTold();
  std::erase(told, kAlive);
  EXPECT_THAT(told, ElementsAre(kReady, kReloading, kReady));
}

TEST_F(NoticesOfProgramTest, AnAutomaticReloadThatFailsEndsTheProgram) {
  Start();
  WriteIni("IgnoreIniErrors=0\nTimeout=never\n");
  Pass(120);
  std::vector<ServiceState> told = TakeTold();
  std::erase(told, kAlive);
  EXPECT_THAT(told, ElementsAre(kReady, kReloading, kReady, kStopping));
}

}  // namespace
}  // namespace trabex
