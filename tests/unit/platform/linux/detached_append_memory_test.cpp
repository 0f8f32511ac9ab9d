// What becomes of lines for which there is no memory somewhere on their way to the disk.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>

#include "platform/detached_append.h"
#include "support/counted_allocations.h"
#include "support/fake_clock.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

// Hands lines over, closes the file and hands over more; each line is in the file or counted as lost, once.
class Lines {
 public:
  // Only what the program takes may fail.
  void Play(std::size_t before, std::size_t times) {
    Do([&] { append_.Append(path_, "first line of the file\n"); });
    Settle();
    {
      const FailedAllocation failure(before, times);
      Do([&] { append_.Append(path_, "second line of the file, which is a long one\nthird line\n"); });
      Do([&] { append_.CloseFile(); });
      Do([&] { append_.Append(path_, "fourth line\n"); });
      Settle();
      Do([&] { append_.Append(other_, long_line_); });
      Settle();
      has_failed_ = failure.HasFailed();
    }
    Do([&] { append_.CloseFile(); });
    Do([&] { append_.Append(path_, "last line\n"); });
    lost_ += append_.Finish(Milliseconds{60000});
  }

  void Check() const {
    const std::string text = ReadFile(path_);
    const std::string all = text + (std::filesystem::exists(other_) ? ReadFile(other_) : std::string());
    EXPECT_EQ(static_cast<std::uint64_t>(std::count(all.begin(), all.end(), '\n')) + lost_, 6U) << all;
    EXPECT_TRUE(text.starts_with("first line of the file\n")) << text;
    EXPECT_TRUE(text.ends_with("\nlast line\n")) << text;
    EXPECT_FALSE(raised_);
  }

  bool HasFailed() const { return has_failed_; }
  std::uint64_t Lost() const { return lost_; }

 private:
  template <class Action>
  void Do(const Action& action) {
    own_.reset();
    try {
      action();
    } catch (const std::exception&) {
      raised_ = true;
    }
    own_.emplace();
  }

  // Until all that was handed over has had its answer.
  void Settle() {
    Do([&] { lost_ += append_.Finish(Milliseconds{60000}); });
  }

  std::optional<OwnAllocations> own_{std::in_place};
  TempFolder folder_;
  std::string path_ = folder_ / "file";
  std::string other_ = folder_ / "made/other";
  std::string long_line_ = std::string(400, 'x') + "\n";
  FakeClock clock_;
  EventLoop loop_{clock_};
  std::uint64_t lost_ = 0;
  bool raised_ = false;
  bool has_failed_ = false;
  DetachedAppend append_{loop_,
                         {.readers = NewFileReaders::kAsUsual, .make_folder = true, .line_end = "\n"},
                         {.answered = [this](const auto& answer) { lost_ += answer.lost_lines; },
                          .silent = [] {},
                          .dropped = [this](std::uint64_t lines) { lost_ += lines; }}};
};

// The process that writes has its share of the allocations, and what fails there shows by lost lines at most.
void PlayAll(std::size_t times) {
  constexpr std::size_t kMoreThanThereAre = 60;
  std::size_t with_losses = 0;
  for (std::size_t before = 0; before < kMoreThanThereAre; ++before) {
    SCOPED_TRACE("allocation " + std::to_string(before));
    Lines lines;
    lines.Play(before, times);
    lines.Check();
    if (lines.Lost() > 0) ++with_losses;
    if (before + 1 < kMoreThanThereAre) continue;
    EXPECT_FALSE(lines.HasFailed());
    EXPECT_EQ(lines.Lost(), 0U);
  }
  EXPECT_GT(with_losses, 5U);
}

TEST(DetachedAppendWithoutMemory, CountsEachLineWhicheverAllocationFails) {
  PlayAll(1);
}

TEST(DetachedAppendWithoutMemory, CountsEachLineWhenThereIsNoneForAWhile) {
  PlayAll(FailedAllocation::kAll);
}

}  // namespace
}  // namespace trabex
