#include "report/json_log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "base/date_time.h"
#include "config/configuration.h"
#include "support/child_process.h"
#include "support/fake_clock.h"
#include "support/loop_runner.h"
#include "support/recorded_log.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

class JsonLogTest : public testing::Test {
 protected:
  JsonLogTest() {
    configuration_.BindPort = 25;
    configuration_.Service.JsonLog = path_;
    clock_.SetNow(FromUnix(1795010064, 0));
  }

  void Write(std::string_view text) {
    json_.Begin("error").Text("text", text);
    json_.End();
  }
  static std::string Line(std::string_view text) {
    return "{\"time\":\"2026-11-18T13:54:24.000Z\",\"event\":\"error\",\"port\":25,\"text\":\"" +
           std::string(text) + "\"}\n";
  }

  TempFolder folder_;
  std::string path_ = folder_ / "trabex.json";
  Configuration configuration_ = DefaultConfiguration();
  FakeClock clock_;
  EventLoop loop_{clock_};
  RecordedLog log_;
  JsonLog json_{configuration_, clock_, loop_, log_};
};

TEST_F(JsonLogTest, WritesTheLinesOfAnIterationAtItsEnd) {
  loop_.Post([this] {
    Write("a");
    Write("b");
    EXPECT_FALSE(std::filesystem::exists(path_));
  });
  RunUntilIdle(loop_);
  EXPECT_EQ(ReadFile(path_), Line("a") + Line("b"));
  struct stat status {};
  ASSERT_EQ(stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0137, 0U);
}

TEST_F(JsonLogTest, AppendsAndOpensANewFileWhenItIsAsked) {
  WriteFile(path_, "before\n");
  Write("a");
  json_.Flush();
  std::filesystem::rename(path_, path_ + ".1");
  Write("b");
  json_.Reopen();
  EXPECT_FALSE(std::filesystem::exists(path_));
  Write("c");
  json_.Flush();
  EXPECT_EQ(ReadFile(path_ + ".1"), "before\n" + Line("a") + Line("b"));
  EXPECT_EQ(ReadFile(path_), Line("c"));
}

TEST_F(JsonLogTest, FollowsTheSettings) {
  Write("a");
  json_.Flush();
  configuration_.Service.JsonLog = folder_ / "other.json";
  Write("b");
  json_.Flush();
  EXPECT_EQ(ReadFile(path_), Line("a"));
  EXPECT_EQ(ReadFile(folder_ / "other.json"), Line("b"));
  configuration_.Service.JsonLog.clear();
  EXPECT_FALSE(json_.IsOn());
  EXPECT_FALSE(json_.Wants("error"));
}

TEST_F(JsonLogTest, TakesTheEventsThatAreNamed) {
  EXPECT_TRUE(json_.Wants("refusal"));
  EXPECT_FALSE(json_.HasNamedEvents());
  configuration_.Service.JsonEvents = {"message", "session"};
  EXPECT_TRUE(json_.HasNamedEvents());
  EXPECT_TRUE(json_.Wants("session"));
  EXPECT_FALSE(json_.Wants("refusal"));
}

TEST_F(JsonLogTest, LinesThatCannotBeWrittenAreCountedAndToldOnce) {
  configuration_.Service.JsonLog = folder_ / "none/trabex.json";
  Write("a");
  Write("b");
  json_.Flush();
  Write("c");
  json_.Flush();
  EXPECT_EQ(json_.LostLines(), 3U);
  EXPECT_EQ(log_.Take(), std::vector<std::string>{"JSON log \"" + configuration_.Service.JsonLog +
                                                  "\" cannot be written. Lines are lost."});
  std::filesystem::create_directory(folder_ / "none");
  Write("d");
  json_.Flush();
  EXPECT_EQ(json_.LostLines(), 3U);
  EXPECT_EQ(ReadFile(configuration_.Service.JsonLog), Line("d"));
}

TEST_F(JsonLogTest, ALineThatIsCutOffDoesNotTakeTheNextOneWithIt) {
  ChildProcess child([this] {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit little{200, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &little);
    Write("a");
    Write("b");
    Write("c");
    json_.Flush();
    const rlimit much{RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &much);
    Write("d");
    json_.Flush();
    return static_cast<int>(json_.LostLines());
  });
  const std::string lines = Line("a") + Line("b") + Line("c");
  EXPECT_EQ(child.Wait(), 1);
  EXPECT_EQ(ReadFile(path_), lines.substr(0, 200) + "\n" + Line("d"));
}

TEST_F(JsonLogTest, AStandardOutputThatIsNotReadHoldsUpNothing) {
  ChildProcess child([this] {
    int ends[2];
    if (pipe(ends) != 0 || dup2(ends[1], STDOUT_FILENO) < 0) return 1;
    close(ends[1]);
    configuration_.Service.JsonLog = kStandardOutput;
    const std::string text(1000, 'x');
    constexpr std::uint64_t kWritten = 2000;
    for (std::uint64_t i = 0; i < kWritten; ++i) Write(text);
    RunUntilIdle(loop_);
    const std::uint64_t lost = json_.LostLines();
    if (lost == 0 || lost >= kWritten) return 2;
    // What was not lost arrives whole when somebody reads.
    std::string read_text;
    std::string buffer(65536, '\0');
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    for (int i = 0; i < 1000; ++i) {
      const ssize_t got = read(ends[0], buffer.data(), buffer.size());
      if (got > 0) read_text.append(buffer, 0, static_cast<std::size_t>(got));
      clock_.Advance(Milliseconds(200));
      RunUntilIdle(loop_);
    }
    std::size_t lines = 0;
    for (std::size_t at = 0; at < read_text.size(); ++lines) {
      const std::size_t end = read_text.find('\n', at);
      if (end == std::string::npos || read_text[at] != '{' || read_text[end - 1] != '}') return 3;
      at = end + 1;
    }
    return lines == kWritten - lost && json_.LostLines() == lost ? 0 : 4;
  });
  EXPECT_EQ(child.Wait(), 0);
}

}  // namespace
}  // namespace trabex
