// The reload on request.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/instance_name.h"
#include "app/requested_reload.h"
#include "platform/bind_errors.h"
#include "platform/clock.h"
#include "platform/event_loop.h"
#include "platform/instance_lock.h"
#include "platform/sockets.h"
#include "reload_fixture.h"
#include "support/asked_by_system.h"
#include "support/ip_address.h"
#include "support/loop_runner.h"
#include "support/plain_socket.h"

namespace trabex {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

// What SIGHUP does without a window, and a request over the control channel.
class RequestedReloadTest : public AutoReloadTest {
 protected:
  // In the first way, where the system has it, and without waiting for an answer.
  void Ask() {
    if (!ReloadsOfTheSystem::Ask()) Window().RequestReload({});
    RunUntilIdle(program_->loop);
  }

  // In the other way, with its answer.
  void Request() {
    outcome_.reset();
    Window().RequestReload([this](const RequestedReload::Outcome& outcome) { outcome_ = outcome; });
  }
  RequestedReload::Outcome Reload() {
    Request();
    EXPECT_TRUE(RunUntil(program_->loop, [&] { return outcome_.has_value(); }));
    return outcome_.value_or(RequestedReload::Outcome());
  }

  // Those of the findings.
  std::vector<std::string> Errors() const {
    std::vector<std::string> errors;
    for (const std::string& finding : outcome_->findings) {
      if (finding.find(": error: ") != std::string::npos) errors.push_back(finding);
    }
    return errors;
  }

  std::optional<RequestedReload::Outcome> outcome_;
  const ReloadsOfTheSystem reloads_of_the_system_;
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

// What was checked is what comes into force: a list file that is spoilt while a name is looked up for the check would
// otherwise end the program.
TEST_F(RequestedReloadTest, TakesTheListFilesThatWereChecked) {
  const std::string list = folder_ / "hosts";
  Write(list, "a.example\n");
  const std::string lines =
      "IgnoreIniErrors=0\nServerIP=server.test\n[ListFiles]\nCommon.HostsWhiteList=" + list + "\n";
  WriteIni("IgnoreIniErrors=0\n");
  Start();
  names_->HoldAnswers();
  names_->SetAddresses("server.test", {IP("10.0.0.1")});
  WriteIni(lines);
  Request();
  Write(list, "[x\n");
  for (int i = 0; i < 3 && !outcome_; ++i) {
    names_->Deliver();
    RunUntilIdle(program_->loop);
  }
  ASSERT_TRUE(outcome_);
  EXPECT_TRUE(outcome_->made);
  EXPECT_TRUE(Settings().HostsWhiteList.Contains("a.example"));
  EXPECT_FALSE(Window().Unloaded());
  names_->HoldAnswers();
  Request();
  for (int i = 0; i < 3 && !outcome_; ++i) {
    names_->Deliver();
    RunUntilIdle(program_->loop);
  }
  ASSERT_TRUE(outcome_);
  EXPECT_FALSE(outcome_->made) << "the next one sees it";
  EXPECT_FALSE(Window().Unloaded());
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
  // Who asks is told what a check tells.
  EXPECT_THAT(Reload().findings, ElementsAre(ini_ + ": error: " + log_.back()));
  EXPECT_EQ(Settings().Timeout, 100);
  EXPECT_FALSE(Window().Unloaded());
}

// Whether errors are ignored at a start or not.
TEST_F(RequestedReloadTest, OfAFileWithErrorsChangesNothing) {
  Start();
  for (const std::string ignore : {"0", "1"}) {
    log_.clear();
    WriteIni("IgnoreIniErrors=" + ignore + "\nTimeout=200\nMaxConnections=many\nTimeOut2=1\n");
    EXPECT_EQ(Reload().made, false);
    const std::vector<std::string> errors = Errors();
    EXPECT_THAT(errors, ElementsAre(AllOf(StartsWith(ini_ + ":8: error: [Common] MaxConnections: "),
                                          HasSubstr("\"many\"")),
                                    StartsWith(ini_ + ":9: error: [Common] TimeOut2: ")));
    ASSERT_EQ(errors.size(), 2U);
    EXPECT_THAT(log_,
                ElementsAre(errors[0], errors[1], "Configuration not reloaded; the one in force stays."));
    EXPECT_EQ(Settings().Timeout, 100);
    log_.clear();
    Ask();
    EXPECT_EQ(log_.size(), 3U) << "it is told of a signal, too";
  }
  EXPECT_FALSE(Window().Unloaded());
  WriteIni("Timeout=300\n");
  EXPECT_TRUE(Reload().made);
  EXPECT_THAT(Errors(), ElementsAre());
  EXPECT_THAT(outcome_->findings, Contains(HasSubstr(": warning: [Common] LocalDomains: ")));
  EXPECT_EQ(Settings().Timeout, 300);
}

TEST_F(RequestedReloadTest, OfBadEarlyKeysAndBadLinesChangesNothing) {
  Start();
  for (const std::string bad : {"Log=3\n", "IgnoreIniErrors=x\n", "no value\n", "[Nowhere]\n"}) {
    WriteIni("Timeout=200\n" + bad);
    EXPECT_FALSE(Reload().made) << bad;
    EXPECT_FALSE(outcome_->findings.empty());
    EXPECT_EQ(Settings().Timeout, 100);
    EXPECT_EQ(Settings().Log, 1);
  }
}

// What the system says of one address of a port that somebody has at all of them: systems differ.
int NumberBesideAllAddresses() {
  const SystemClock clock;
  EventLoop loop(clock);
  Sockets sockets(loop);
  const auto port = static_cast<std::uint16_t>(FreePort());
  SocketHandle all;
  SocketHandle one;
  EXPECT_EQ(sockets.Open(Transport::kTcp, AddressFamily::kIPv4, all), 0);
  EXPECT_EQ(sockets.BindExclusively(all, {kIPv4Any, port}), 0);
  EXPECT_EQ(sockets.Listen(all, 0), 0);
  EXPECT_EQ(sockets.Open(Transport::kTcp, AddressFamily::kIPv4, one), 0);
  const int number = sockets.BindExclusively(one, {kIPv4Loopback, port});
  EXPECT_TRUE(MayBeTaken(number)) << number;
  return number;
}

// What only the system can say: otherwise the program would end.
TEST_F(RequestedReloadTest, ToAddressesThatCannotBeHadChangesNothing) {
  Start();
  PlainSocket other;
  const int taken = other.Bind();
  other.Listen();
  const int free_port = FreePort();
  const auto other_lock = TryLockInstance(program_->loop, InstanceName(free_port), [] {});
  const auto with = [&](const std::string& address, int port, int server_port) {
    return "[Common]\nBindIP=" + address + "\nBindPort=" + std::to_string(port) +
           "\nServerIP=127.0.0.1\nServerPort=" + std::to_string(server_port) +
           "\nLogPath=" + (folder_ / "Log") + "\n";
  };
  const int new_port = FreePort();
  const struct {
    std::string text;
    std::string reason;
  } rows[] = {
      {with("127.0.0.1", taken, 1), "Error 10048 binding to 127.0.0.1:" + std::to_string(taken) + ". "},
      {with("192.0.2.1", port_, 1), "Error 10049 binding to 192.0.2.1:" + std::to_string(port_) + ". "},
      {with("127.0.0.1, 0.0.0.0", port_, 1),
       "Error 10048 binding to 0.0.0.0:" + std::to_string(port_) + ". "},
      {with("0.0.0.0, 127.0.0.1", new_port, 1), "Error " + std::to_string(NumberBesideAllAddresses()) +
                                                    " binding to 127.0.0.1:" + std::to_string(new_port) +
                                                    ". "},
      {with("127.0.0.1", free_port, 1),
       "The instance of this application listening on the same port already running."},
      {with("127.0.0.1", new_port, new_port), "Loop detected: "},
      {with("127.0.0.1", port_, port_), "Loop detected: "},
  };
  for (const auto& row : rows) {
    log_.clear();
    Write(ini_, row.text);
    EXPECT_FALSE(Reload().made) << row.reason;
    EXPECT_THAT(Errors(), ElementsAre(AllOf(StartsWith(ini_), HasSubstr(row.reason))));
    EXPECT_THAT(log_, Contains(HasSubstr(row.reason)));
    EXPECT_THAT(log_, Contains("Configuration not reloaded; the one in force stays."));
    EXPECT_EQ(Settings().BindPort, port_);
    EXPECT_FALSE(Window().Unloaded());
    EXPECT_TRUE(PlainSocket().Connect(port_)) << "it still listens";
  }
  EXPECT_EQ(TryLockInstance(program_->loop, InstanceName(port_), [] {}), nullptr);
  // One that is in the way only as long as we listen there.
  for (const char* const address : {"0.0.0.0", "127.0.0.1"}) {
    Write(ini_, with(address, port_, 1));
    EXPECT_TRUE(Reload().made) << address;
    EXPECT_EQ(Settings().BindIP, address);
    EXPECT_TRUE(PlainSocket().Connect(port_));
  }
}

TEST_F(RequestedReloadTest, IsInForceWhenItIsAnswered) {
  Start();
  names_->HoldAnswers();
  const int other = FreePort();
  Write(ini_, "[Common]\nBindIP=127.0.0.1\nBindPort=" + std::to_string(other) + "\nServerPort=" +
                  std::to_string(other) + "\nServerIP=server.test\nLogPath=" + (folder_ / "Log") + "\n");
  Request();
  EXPECT_EQ(outcome_, std::nullopt) << "the server's name is being looked up";
  EXPECT_EQ(Settings().BindPort, port_);
  names_->SetAddresses("server.test", {IP("10.0.0.1")});
  EXPECT_EQ(names_->Deliver(), 1U);
  RunUntilIdle(program_->loop);
  EXPECT_EQ(outcome_, std::nullopt) << "and again, now that the file is being put in force";
  EXPECT_EQ(names_->Deliver(), 1U);
  ASSERT_NE(outcome_, std::nullopt);
  EXPECT_TRUE(outcome_->made);
  EXPECT_EQ(Settings().BindPort, other);
  EXPECT_TRUE(PlainSocket().Connect(other));
}

TEST_F(RequestedReloadTest, IsAnsweredWhenTheProgramEnds) {
  Start();
  names_->HoldAnswers();
  Write(ini_, "[Common]\nBindIP=127.0.0.1\nBindPort=" + std::to_string(port_) +
                  "\nServerPort=" + std::to_string(port_) + "\nServerIP=server.test\n");
  Request();
  std::optional<RequestedReload::Outcome> second;
  Window().RequestReload([&](const RequestedReload::Outcome& outcome) { second = outcome; });
  EXPECT_EQ(outcome_, std::nullopt);
  Window().Form_Unload();
  ASSERT_TRUE(outcome_ && second);
  EXPECT_FALSE(outcome_->made || second->made);
  EXPECT_THAT(outcome_->findings, ElementsAre(ini_ + ": error: The program ends."));
  names_->Deliver();
}

// The automatic one begins while the server's name is looked up for the one that was asked for.
TEST_F(RequestedReloadTest, WaitsForAnAutomaticOne) {
  Start();
  names_->HoldAnswers();
  const auto with_server = [&](const std::string& server) {
    return "[Common]\nBindIP=127.0.0.1\nBindPort=" + std::to_string(port_) +
           "\nServerPort=" + std::to_string(port_) + "\nServerIP=" + server +
           "\nLogPath=" + (folder_ / "Log") + "\n";
  };
  names_->SetAddresses("first.test", {IP("10.0.0.1")});
  names_->SetAddresses("second.test", {IP("10.0.0.2")});
  Write(ini_, with_server("first.test"));
  Request();
  Write(ini_, with_server("second.test"));
  Pass(60);
  EXPECT_EQ(Reloads(), 1) << "the automatic one, which waits for its look-up";
  EXPECT_EQ(outcome_, std::nullopt);
  for (int i = 0; i < 5 && !outcome_; ++i) {
    names_->Deliver();
    RunUntilIdle(program_->loop);
  }
  ASSERT_NE(outcome_, std::nullopt);
  EXPECT_TRUE(outcome_->made);
  EXPECT_EQ(Settings().ServerIP, "second.test");
  EXPECT_FALSE(Window().Unloaded());
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
  names_->SetAddresses("first.test", {IP("10.0.0.1")});
  names_->SetAddresses("second.test", {IP("10.0.0.2")});
  Write(ini_, with_server("first.test"));
  Ask();
  EXPECT_EQ(names_->Deliver(), 1U) << "of the test before the reload";
  EXPECT_EQ(Reloads(), 1);
  EXPECT_TRUE(PlainSocket().Connect(port_)) << "as long as the name is looked up";
  Write(ini_, with_server("second.test"));
  Ask();
  Ask();
  EXPECT_EQ(Reloads(), 1);
  EXPECT_EQ(names_->Deliver(), 1U);
  EXPECT_EQ(Reloads(), 1) << "the next one is tested";
  EXPECT_EQ(names_->Deliver(), 1U);
  EXPECT_EQ(Reloads(), 2);
  RunUntilIdle(program_->loop);
  names_->Deliver();
  EXPECT_TRUE(PlainSocket().Connect(other));
  EXPECT_FALSE(PlainSocket().Connect(port_));
  EXPECT_EQ(Settings().ServerIP, "second.test");
  EXPECT_FALSE(Window().Unloaded());
}

TEST_F(RequestedReloadTest, IsNoneAfterTheEnd) {
  Start();
  WriteIni("Timeout=200\n");
  Window().Form_Unload();
  log_.clear();
  Ask();
  RunUntilIdle(program_->loop);
  EXPECT_EQ(Settings().Timeout, 100);
  EXPECT_EQ(log_, std::vector<std::string>());
}

}  // namespace
}  // namespace trabex
