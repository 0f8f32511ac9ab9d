// The log under REOPENLOG.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "reload_fixture.h"

namespace trabex {
namespace {

class ReopenedLogTest : public AutoReloadTest {
 protected:
  // Ten lines, a tenth of a second between them.
  void LogForASecond() {
    for (int i = 0; i < 10; ++i) {
      program_->log.LogLine("line " + std::to_string(next_++));
      clock_.Advance(Milliseconds{100});
      RunUntilIdle(program_->loop);
    }
  }
  void AskToReopen() {
    const auto answer = std::get<ControlAnswer>(program_->requests.Answer({"REOPENLOG"}));
    EXPECT_EQ(answer.status, exit_status::kDone);
    EXPECT_EQ(answer.text + answer.error, "");
  }
  // The messages "line ..." of a file in the log's folder, as their numbers.
  std::vector<int> LinesIn(const std::string& file) const {
    std::vector<int> numbers;
    std::ifstream in(folder_ / ("Log/" + file));
    for (std::string line; std::getline(in, line);) {
      const std::size_t found = line.find(" line ");
      if (found != std::string::npos) numbers.push_back(std::stoi(line.substr(found + 6)));
    }
    return numbers;
  }
  std::string LogName(const std::string& date) const {
    return "Trabex-" + std::to_string(port_) + "-" + date + ".log";
  }
  static std::vector<int> Numbers(int first, int end) {
    std::vector<int> numbers;
    for (int i = first; i < end; ++i) numbers.push_back(i);
    return numbers;
  }

  int next_ = 0;
};

TEST_F(ReopenedLogTest, GoesOnInANewFileWhereTheOldOneWasMoved) {
  Start();
  program_->log.CollectOn(&program_->loop);
  const std::string name = LogName("261115");
  const std::string folder = folder_ / "Log/";
  LogForASecond();
  std::filesystem::rename(folder + name, folder + "moved");
  LogForASecond();
  program_->log.LogLine("line " + std::to_string(next_++));  // collected when the request comes
  AskToReopen();
  LogForASecond();
  EXPECT_EQ(LinesIn("moved"), Numbers(0, 21));
  EXPECT_EQ(LinesIn(name), Numbers(21, 31));
}

// Without a pause of five seconds the file of the day before goes on, until the request.
TEST_F(ReopenedLogTest, GoesOnInTheFileOfTheDay) {
  clock_.SetNow(46341.0 + 86395.0 / 86400.0);  // 15 November 2026, 23:59:55
  Start();
  program_->log.CollectOn(&program_->loop);
  for (int second = 0; second < 10; ++second) LogForASecond();
  EXPECT_EQ(LinesIn(LogName("261115")), Numbers(0, 100));
  EXPECT_FALSE(std::filesystem::exists(folder_ / ("Log/" + LogName("261116"))));
  AskToReopen();
  LogForASecond();
  EXPECT_EQ(LinesIn(LogName("261115")), Numbers(0, 100));
  EXPECT_EQ(LinesIn(LogName("261116")), Numbers(100, 110));
}

}  // namespace
}  // namespace trabex
