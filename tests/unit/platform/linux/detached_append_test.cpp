#include "platform/detached_append.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
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
  ASSERT_TRUE(AwaitAnswers(2));
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
  Signal(SIGSTOP);
  append_.Append(folder_ / "file", "lost\nlost\n");
  append_.Append(folder_ / "file", "b\n");
  Signal(SIGKILL);
  EXPECT_TRUE(Await("file", "a\nb\n"));
  ASSERT_TRUE(AwaitAnswers(3));
  EXPECT_EQ(answers_[1].lost_lines, 2U);
  EXPECT_EQ(Children().size(), 1U);
  // Also where it had nothing to do.
  Signal(SIGKILL);
  append_.Append(folder_ / "file", "c\n");
  ASSERT_TRUE(RunUntil(loop_, [&] { return answers_.size() >= 4; }));
}

TEST_F(DetachedAppendTest, FinishHasABound) {
  append_.Append(folder_ / "file", "a\n");
  ASSERT_TRUE(AwaitAnswers(1));
  Signal(SIGSTOP);
  append_.Append(folder_ / "file", "b\nc\n");
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
}

}  // namespace
}  // namespace trabex
