#include "platform/detached_append.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

#include "support/fake_clock.h"
#include "support/loop_runner.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

std::string TextOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<pid_t> Children() {
  std::ifstream children("/proc/self/task/" + std::to_string(getpid()) + "/children");
  return {std::istream_iterator<pid_t>(children), {}};
}

char StateOf(pid_t process) {
  const std::string text = TextOf("/proc/" + std::to_string(process) + "/stat");
  const std::size_t name_end = text.rfind(") ");
  return name_end == std::string::npos ? '\0' : text.at(name_end + 2);
}

// Whether the only child has the file open.
bool IsOpen(const std::string& path) {
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(Children().front()) + "/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry, gone) == path) return true;
  }
  return false;
}

class DetachedAppendTest : public testing::Test {
 protected:
  ~DetachedAppendTest() override {
    for (const pid_t child : Children()) {
      kill(child, SIGKILL);
      waitpid(child, nullptr, 0);
    }
  }

  // The only child there is; a stopped one is as one whose disk hangs.
  void Signal(int number) {
    const std::vector<pid_t> children = Children();
    ASSERT_EQ(children.size(), 1U);
    kill(children.front(), number);
    if (number == SIGSTOP) {
      while (StateOf(children.front()) != 'T') poll(nullptr, 0, 1);
    }
  }
  bool Await(const std::string& name, const std::string& text) {
    return RunUntil(loop_, [&] { return TextOf(folder_ / name) == text; });
  }
  bool AwaitAnswers(std::size_t count) {
    return RunUntil(loop_, [&] { return answers_.size() >= count; });
  }

  TempFolder folder_;
  FakeClock clock_;
  EventLoop loop_{clock_};
  std::vector<DetachedAppend::Answer> answers_;
  int silences_ = 0;
  std::uint64_t dropped_ = 0;
  DetachedAppend append_{loop_,
                         {.readers = NewFileReaders::kAsUsual, .make_folder = true, .line_end = "\r\n"},
                         {.answered = [this](const auto& answer) { answers_.push_back(answer); },
                          .silent = [this] { ++silences_; },
                          .dropped = [this](std::uint64_t lines) { dropped_ += lines; }}};
};

TEST_F(DetachedAppendTest, WritesInOrder) {
  const std::string first = folder_ / "made/first";
  append_.Append(first, "a\r\nb\r\n");
  append_.Append(first, "c\r\n");
  append_.Append(folder_ / "second", "d\r\n");
  append_.Append(first, "e\r\n");
  EXPECT_TRUE(Await("made/first", "a\r\nb\r\nc\r\ne\r\n"));
  EXPECT_TRUE(Await("second", "d\r\n"));
  for (const auto& answer : answers_) EXPECT_EQ(answer.lost_lines, 0U);
  EXPECT_EQ(append_.Finish(Milliseconds{60000}), 0U);
  EXPECT_TRUE(Children().empty());
}

TEST_F(DetachedAppendTest, CutsMuchAtLineEndsAndKeepsLongLines) {
  std::string text;
  for (int i = 0; i < 20000; ++i) text += std::to_string(i) + " of many\n";
  text += std::string(100'000, 'x') + "\nlast\n";
  append_.Append(folder_ / "file", text);
  EXPECT_TRUE(Await("file", text));
}

TEST_F(DetachedAppendTest, CountsALineThatIsTooLong) {
  append_.Append(folder_ / "file", "a\n" + std::string(300'000, 'x') + "\nb\n");
  ASSERT_TRUE(Await("file", "a\nb\n"));
  std::uint64_t lost = 0;
  for (const auto& answer : answers_) lost += answer.lost_lines;
  EXPECT_EQ(lost, 1U);
}

TEST_F(DetachedAppendTest, OpensAClosedFileAnew) {
  const std::string path = folder_ / "file";
  append_.Append(path, "a\n");
  append_.CloseFile();
  ASSERT_TRUE(AwaitAnswers(1));
  ASSERT_TRUE(RunUntil(loop_, [&] { return !IsOpen(path); }));
  std::filesystem::rename(path, folder_ / "moved");
  append_.Append(path, "b\n");
  EXPECT_TRUE(Await("file", "b\n"));
  EXPECT_EQ(TextOf(folder_ / "moved"), "a\n");
}

TEST_F(DetachedAppendTest, EndsALineThatWasCutOff) {
  std::ofstream(folder_ / "file") << "cut";
  append_.Append(folder_ / "file", "whole\r\n");
  EXPECT_TRUE(Await("file", "cut\r\nwhole\r\n"));
}

TEST_F(DetachedAppendTest, SaysWhyAFileIsNotOpened) {
  std::filesystem::create_directory(folder_ / "file");
  append_.Append(folder_ / "file", "a\nb\n");
  ASSERT_TRUE(AwaitAnswers(1));
  EXPECT_EQ(answers_.front().lost_lines, 2U);
  EXPECT_EQ(answers_.front().why_not_opened, "Path/File access error");
}

TEST_F(DetachedAppendTest, DropsWhatCannotWait) {
  const std::string line = std::string(999, 'x') + "\n";
  append_.Append(folder_ / "file", "first\n");
  ASSERT_TRUE(Await("file", "first\n"));
  Signal(SIGSTOP);
  std::uint64_t lines = 1;
  for (; lines < 6000; ++lines) append_.Append(folder_ / "file", line);
  loop_.RunOnce(Milliseconds{0});
  clock_.Advance(DetachedAppend::kSilence);
  EXPECT_TRUE(RunUntil(loop_, [&] { return silences_ > 0; }));
  clock_.Advance(DetachedAppend::kSilence);
  loop_.RunOnce(Milliseconds{0});
  EXPECT_EQ(silences_, 1);
  Signal(SIGCONT);
  EXPECT_TRUE(RunUntil(loop_, [&] { return dropped_ > 0; }));
  append_.Append(folder_ / "file", "last\n");
  EXPECT_EQ(append_.Finish(Milliseconds{60000}), 0U);
  const std::string text = TextOf(folder_ / "file");
  EXPECT_TRUE(text.ends_with("x\nlast\n"));
  EXPECT_EQ(static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n')) + dropped_, lines + 1);
  EXPECT_GT(text.size(), DetachedAppend::kMaxWaiting * 9 / 10);
  EXPECT_LE(text.size(), DetachedAppend::kMaxWaiting + 2000);
}

TEST_F(DetachedAppendTest, BeginsAnewWhenItWasKilled) {
  append_.Append(folder_ / "file", "a\n");
  ASSERT_TRUE(AwaitAnswers(1));
  // It has not taken the packet, so nothing of that can be in the file.
  Signal(SIGSTOP);
  append_.Append(folder_ / "file", "b\nc\n");
  append_.Append(folder_ / "file", "d\n");
  Signal(SIGKILL);
  EXPECT_TRUE(Await("file", "a\nb\nc\nd\n"));
  ASSERT_TRUE(AwaitAnswers(3));
  EXPECT_EQ(Children().size(), 1U);
  // Also where it had nothing to do, and is gone before the next lines come.
  Signal(SIGKILL);
  while (StateOf(Children().front()) != 'Z') poll(nullptr, 0, 1);
  append_.Append(folder_ / "file", "e\n");
  EXPECT_TRUE(Await("file", "a\nb\nc\nd\ne\n"));
  ASSERT_TRUE(AwaitAnswers(4));
  for (const auto& answer : answers_) EXPECT_EQ(answer.lost_lines, 0U);
  EXPECT_EQ(Children().size(), 1U);
}

// A program that hands lines over and then dies, whatever it was doing.
TEST_F(DetachedAppendTest, LinesAreWrittenThoughTheProgramWasKilled) {
  // The process outlives the program, and is waited for here.
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0), 0);
  std::array<int, 2> told{};
  std::array<int, 2> asked{};
  std::array<int, 2> output{};
  ASSERT_EQ(pipe(output.data()), 0);
  ASSERT_EQ(pipe(told.data()), 0);
  ASSERT_EQ(pipe(asked.data()), 0);
  const std::string path = folder_ / "file";
  const pid_t program = fork();
  ASSERT_GE(program, 0);
  if (program == 0) {
    dup2(output[1], STDOUT_FILENO);
    int answers = 0;
    DetachedAppend append(
        loop_, {}, {.answered = [&](const auto&) { ++answers; }, .silent = [] {}, .dropped = [](auto) {}});
    append.Append(path, "a\n");
    RunUntil(loop_, [&] { return answers > 0; });
    const pid_t writer = Children().front();
    static_cast<void>(write(told[1], &writer, sizeof writer));
    char go = 0;
    static_cast<void>(read(asked[0], &go, 1));
    append.Append(path, "b\nc\n");
    static_cast<void>(write(told[1], &go, 1));
    for (;;) pause();
  }
  pid_t writer = 0;
  ASSERT_EQ(read(told[0], &writer, sizeof writer), static_cast<ssize_t>(sizeof writer));
  kill(writer, SIGSTOP);
  while (StateOf(writer) != 'T') poll(nullptr, 0, 1);
  char done = 1;
  ASSERT_EQ(write(asked[1], &done, 1), 1);
  ASSERT_EQ(read(told[0], &done, 1), 1);
  kill(program, SIGKILL);
  ASSERT_EQ(waitpid(program, nullptr, 0), program);
  // Whoever waits for the end of the program's output is not kept waiting.
  close(output[1]);
  pollfd end{output[0], POLLIN, 0};
  EXPECT_EQ(poll(&end, 1, 60000), 1);
  EXPECT_NE(end.revents & POLLHUP, 0);
  kill(writer, SIGCONT);
  int status = -1;
  EXPECT_EQ(waitpid(writer, &status, 0), writer);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(TextOf(path), "a\nb\nc\n");
  prctl(PR_SET_CHILD_SUBREAPER, 0, 0, 0, 0);
  for (const int each : {output[0], told[0], told[1], asked[0], asked[1]}) close(each);
}

TEST_F(DetachedAppendTest, ClosingIsNoAnswer) {
  std::filesystem::create_directory(folder_ / "file");
  append_.Append(folder_ / "file", "a\n");
  append_.CloseFile();
  append_.Append(folder_ / "file", "b\n");
  ASSERT_TRUE(AwaitAnswers(2));
  for (const auto& answer : answers_) EXPECT_EQ(answer.why_not_opened, "Path/File access error");
}

// Whatever is closed meanwhile, each line is in the file or counted, and what waits has its limit.
TEST_F(DetachedAppendTest, CountsWhatComesBetweenCloses) {
  const std::string path = folder_ / "file";
  append_.Append(path, "first\n");
  ASSERT_TRUE(Await("file", "first\n"));
  Signal(SIGSTOP);
  constexpr std::uint64_t kLines = 100'000;
  for (std::uint64_t i = 0; i < kLines; ++i) {
    append_.Append(path, "x\n");
    append_.CloseFile();
    append_.CloseFile();
  }
  Signal(SIGCONT);
  ASSERT_TRUE(RunUntil(
      loop_, [&] { return dropped_ > 0; }, std::chrono::seconds(60)));
  EXPECT_EQ(append_.Finish(Milliseconds{60000}), 0U);
  const std::string text = TextOf(path);
  EXPECT_EQ(static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n')) + dropped_, kLines + 1);
}

TEST_F(DetachedAppendTest, FinishHasABound) {
  append_.Append(folder_ / "file", "a\n");
  ASSERT_TRUE(AwaitAnswers(1));
  Signal(SIGSTOP);
  append_.Append(folder_ / "file", "b\nc\n");
  append_.Append(folder_ / "file", "d\n");
  EXPECT_EQ(append_.Finish(Milliseconds{50}), 3U);
}

TEST_F(DetachedAppendTest, FinishCountsWhatComesBehindAClose) {
  append_.Append(folder_ / "file", "a\n");
  ASSERT_TRUE(AwaitAnswers(1));
  Signal(SIGSTOP);
  append_.CloseFile();
  append_.Append(folder_ / "file", "b\nc\n");
  append_.CloseFile();
  append_.Append(folder_ / "file", "d\n");
  EXPECT_EQ(append_.Finish(Milliseconds{50}), 3U);
}

TEST_F(DetachedAppendTest, HoldsNothingOfTheProgram) {
  std::array<int, 2> pair{};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair.data()), 0);
  append_.Append(folder_ / "file", "a\n");
  ASSERT_TRUE(AwaitAnswers(1));
  close(pair[0]);
  pollfd other{pair[1], POLLIN, 0};
  EXPECT_EQ(poll(&other, 1, 60000), 1);
  EXPECT_NE(other.revents & POLLHUP, 0);
  close(pair[1]);
  // Not even what is the program's standard output, for whose end somebody may wait.
  for (const char* const number : {"0", "1", "2"}) {
    const std::string place = "/proc/" + std::to_string(Children().front()) + "/fd/" + number;
    EXPECT_EQ(std::filesystem::read_symlink(place), "/dev/null");
  }
}

}  // namespace
}  // namespace trabex
