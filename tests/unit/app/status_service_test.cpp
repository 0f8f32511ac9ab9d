// What the program says of itself: STATUS, HTTP, and its own lines of the JSON log.
#include "app/status_service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "app/frmMain.h"
#include "app/program.h"
#include "app/version.h"
#include "base/text.h"
#include "program_fixture.h"
#include "support/loop_runner.h"
#include "support/plain_socket.h"
#include "support/test_peer.h"

namespace trabex {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class StatusServiceTest : public ProgramTest {
 protected:
  StatusServiceTest() {
    Settings().LogPath = folder_ / "Log";
    Settings().BindIP = "127.0.0.1";
    Settings().BindPort = FreePort();
    Settings().ServerPort = Settings().BindPort == 25 ? 26 : 25;
    ObserveLog(program_);
    program_.window = std::make_unique<frmMain>(program_);
  }

  Configuration& Settings() { return program_.configuration; }
  frmMain& Window() { return *program_.window; }
  ControlAnswer Ask(std::vector<std::string> request) {
    request.insert(request.begin(), "STATUS");
    return std::get<ControlAnswer>(program_.requests.Answer(request));
  }
  void SetHttp(std::uint16_t port) {
    Settings().Service.StatusHTTP = "127.0.0.1:" + std::to_string(port);
    Settings().Service.status_endpoint = {kIPv4Loopback, port};
  }
  std::string Get(std::uint16_t port, const std::string& path) {
    TestPeer peer = TestPeer::Connect(port);
    peer.Send("GET " + path + " HTTP/1.1\r\nHost: localhost\r\n\r\n");
    EXPECT_TRUE(RunUntil(program_.loop, [&] {
      peer.Poll();
      return peer.AtEnd();
    }));
    return peer.Received();
  }

  Program program_{MakeDependencies()};
};

TEST_F(StatusServiceTest, AnswersTheRequest) {
  ASSERT_TRUE(Window().Form_Load());
  const ControlAnswer all = Ask({});
  EXPECT_EQ(all.status, 0);
  EXPECT_THAT(all.text, HasSubstr("\ntrabex_build_info{version=\"" + VersionText() + "\"} 1\n"));
  EXPECT_THAT(all.text, HasSubstr("\ntrabex_sessions_open 0\n"));
  EXPECT_EQ(Ask({"sessions_open"}).text, "0\n");
  EXPECT_EQ(Ask({"trabex_start_time_seconds"}).text, std::to_string(clock_.UnixMilliseconds() / 1000) + "\n");
  const ControlAnswer unknown = Ask({"sessions_closed"});
  EXPECT_EQ(unknown.status, 1);
  EXPECT_EQ(unknown.error, "There is no value \"sessions_closed\".");
  EXPECT_EQ(Ask({"a", "b"}).status, 1);
}

TEST_F(StatusServiceTest, CountsOpenDescriptors) {
  ASSERT_TRUE(Window().Form_Load());
  EXPECT_GT(std::stoi(Ask({"descriptors_open"}).text), 3);
}

TEST_F(StatusServiceTest, CountsTheLostLinesOfBothLogs) {
  Settings().Service.JsonLog = folder_ / "none/trabex.json";
  ASSERT_TRUE(Window().Form_Load());
  Settings().LogPath = folder_ / "none/Log";
  program_.log.Close();
  program_.log.LogLine("lost");
  program_.json_log.Flush();
  // One of them says that the other one fails.
  EXPECT_EQ(Ask({"log_lines_lost_total{log=\"text\"}"}).text, "2\n");
  EXPECT_EQ(Ask({"log_lines_lost_total{log=\"json\"}"}).text, "1\n");
}

TEST_F(StatusServiceTest, AnswersOverHttpWhileItIsSet) {
  const auto port = static_cast<std::uint16_t>(FreePort());
  SetHttp(port);
  ASSERT_TRUE(Window().Form_Load());
  EXPECT_THAT(Get(port, "/metrics"), HasSubstr("\ntrabex_sessions_open 0\n"));
  EXPECT_THAT(Get(port, "/healthz"), EndsWith("\r\n\r\nOK\n"));
  Settings().Service.StatusHTTP.clear();
  Settings().Service.status_endpoint = {};
  Window().Reloaded(true);
  EXPECT_THROW(TestPeer::Connect(port), std::exception);
  EXPECT_EQ(Ask({"reloads_total{result=\"ok\"}"}).text, "1\n");
  EXPECT_EQ(Ask({"last_reload_success"}).text, "1\n");
}

TEST_F(StatusServiceTest, APortThatIsTakenIsOneLineOfTheLog) {
  SetHttp(static_cast<std::uint16_t>(Settings().BindPort));
  ASSERT_TRUE(Window().Form_Load());
  EXPECT_EQ(log_.back(), "Status cannot be asked for at 127.0.0.1:" + std::to_string(Settings().BindPort) +
                             ". Error 10048. Address already in use.");
  EXPECT_EQ(err_.str(), "Trabex: " + log_.back() + "\n");
  EXPECT_EQ(Ask({"configuration_errors"}).text, "1\n");
  EXPECT_TRUE(Window().Listening());
  // Likewise at each reload, as long as it is so.
  Window().Reloaded(true);
  EXPECT_EQ(Ask({"configuration_errors"}).text, "1\n");
  SetHttp(static_cast<std::uint16_t>(FreePort()));
  Window().Reloaded(true);
  EXPECT_EQ(Ask({"configuration_errors"}).text, "0\n");
}

TEST_F(StatusServiceTest, SavesOfTheGreylistingDatabaseAreCounted) {
  Settings().GreyListing.Enabled = true;
  std::filesystem::create_directory(folder_ / "grey");
  Settings().GreyListing.Database = folder_ / "grey/grey.dat";
  program_.LoadGreyListing();
  EXPECT_EQ(Ask({"greylisting_records"}).text, "0\n");
  program_.greylisting.ShouldDefer("", IPAddress::IPv4(0xC0000201), "s@remote.test", "r@local.test");
  EXPECT_EQ(Ask({"greylisting_records"}).text, "1\n");
  program_.greylisting.Save();
  program_.greylisting.Save();  // nothing has changed
  EXPECT_EQ(Ask({"greylisting_saves_total{result=\"ok\"}"}).text, "1\n");
  EXPECT_EQ(Ask({"greylisting_saves_total{result=\"error\"}"}).text, "0\n");
  EXPECT_EQ(Ask({"greylisting_last_save_time_seconds"}).text,
            std::to_string(clock_.UnixMilliseconds() / 1000) + "\n");
  program_.greylisting.ShouldDefer("", IPAddress::IPv4(0xC0000201), "s@remote.test", "q@local.test");
  std::filesystem::rename(folder_ / "grey", folder_ / "elsewhere");
  WriteFile(folder_ / "grey", "no folder");
  const std::string before = Ask({"greylisting_last_save_time_seconds"}).text;
  clock_.Advance(Milliseconds(5000));
  program_.greylisting.Save();
  EXPECT_EQ(Ask({"greylisting_saves_total{result=\"ok\"}"}).text, "1\n");
  EXPECT_EQ(Ask({"greylisting_saves_total{result=\"error\"}"}).text, "1\n");
  EXPECT_EQ(Ask({"greylisting_last_save_time_seconds"}).text, before);
}

TEST_F(StatusServiceTest, TheJsonLogHasTheProgramsOwnEvents) {
  Settings().Service.JsonLog = folder_ / "trabex.json";
  ASSERT_TRUE(Window().Form_Load());
  program_.log.LogError(57, "Device I/O error", "somewhere");
  program_.log.LogProblem("bad value");
  Window().Reloaded(false);
  EXPECT_EQ(Ask({"configuration_errors"}).text, "1\n");
  EXPECT_EQ(Ask({"last_reload_success"}).text, "0\n");
  Window().Form_Unload();
  const std::string text = ReadFile(folder_ / "trabex.json");
  const std::string version = ",\"version\":\"" + VersionText() + "\"";
  const auto head = [&](const std::string& event) {
    return "\",\"event\":\"" + event + "\",\"port\":" + std::to_string(Settings().BindPort);
  };
  std::vector<std::string> lines;
  for (const std::string_view line : Split(text, '\n')) {
    if (!line.empty()) lines.emplace_back(line.substr(sizeof("{\"time\":\"2026-11-15T16:54:24.000Z") - 1));
  }
  EXPECT_EQ(lines, (std::vector<std::string>{
                       head("start") + version + ",\"errors\":[]}",
                       head("error") + ",\"number\":57,\"text\":\"Device I/O error\"}",
                       head("reload") + ",\"result\":\"error\",\"errors\":[\"bad value\"]}",
                       head("stop") + version + "}",
                   }));
}

}  // namespace
}  // namespace trabex
