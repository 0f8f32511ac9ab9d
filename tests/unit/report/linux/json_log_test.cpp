#include "report/json_log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "support/child_process.h"
#include "unit/report/json_log_fixture.h"

namespace trabex {
namespace {

TEST_F(JsonLogTest, IsReadForItsOwnerAndHisGroupOnly) {
  Write("a");
  json_.Flush();
  struct stat status {};
  ASSERT_EQ(stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0137, 0U);
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
