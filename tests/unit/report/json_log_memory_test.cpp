// What the log holds when there was no memory for a part of it.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <new>
#include <string>

#include "report/json_line.h"
#include "support/counted_allocations.h"
#include "unit/report/json_log_fixture.h"

namespace trabex {
namespace {

// Lines of all lengths around that of the room in which a line is put together.
constexpr std::size_t kLengths[] = {10, 700, 1700, 1900, 2000, 2100, 9000};

bool HasEachLineWhole(const std::string& text) {
  std::size_t begin = 0;
  while (begin < text.size()) {
    const std::size_t end = text.find('\n', begin);
    if (end == std::string::npos) return false;
    const std::string line = text.substr(begin, end - begin);
    const std::size_t behind = line.find_last_not_of('x', line.size() - 3);
    if (!line.starts_with("{\"time\":\"2026-11-18T13:54:24.000Z\",\"event\":\"error\"") ||
        !line.ends_with("x\"}") || line.find("{", 1) != std::string::npos ||
        line.substr(behind - 7, 8) != "\"text\":\"") {
      return false;
    }
    begin = end + 1;
  }
  return true;
}

TEST_F(JsonLogTest, HoldsWholeLinesOnlyWhicheverAllocationFails) {
  for (std::size_t before = 0;; ++before) {
    SCOPED_TRACE(before);
    WriteFile(path_, "");
    JsonLog json(configuration_, clock_, loop_, log_);
    const std::string texts[] = {std::string(kLengths[0], 'x'), std::string(kLengths[1], 'x'),
                                 std::string(kLengths[2], 'x'), std::string(kLengths[3], 'x'),
                                 std::string(kLengths[4], 'x'), std::string(kLengths[5], 'x'),
                                 std::string(kLengths[6], 'x')};
    std::size_t lost = 0;
    bool failed = false;
    {
      const FailedAllocation failure(before);
      for (const std::string& text : texts) {
        try {
          json.Begin("error").Text("text", text);
          json.End();
        } catch (const std::bad_alloc&) {
          ++lost;
        }
      }
      json.Flush();
      failed = failure.HasFailed();
    }
    EXPECT_LE(lost, 1U);
    // The log goes on.
    json.Begin("error").Text("text", "x");
    json.End();
    json.Flush();
    const std::string written = ReadFile(path_);
    EXPECT_TRUE(HasEachLineWhole(written)) << written;
    EXPECT_TRUE(written.ends_with(Line("x")));
    const auto lines = static_cast<std::size_t>(std::count(written.begin(), written.end(), '\n'));
    EXPECT_GE(lines + lost, std::size(kLengths) + 1);
    if (!failed) break;
    ASSERT_LT(before, 100U);
  }
}

TEST_F(JsonLogTest, LineThatHasNotEndedLeavesNothingAndIsCounted) {
  for (const std::size_t length : kLengths) {
    WriteFile(path_, "");
    JsonLog json(configuration_, clock_, loop_, log_);
    for (int i = 0; i < 20; ++i) json.Begin("error").Text("text", std::string(length, 'x'));
    json.Begin("error").Text("text", "a");
    json.End();
    json.Flush();
    EXPECT_EQ(ReadFile(path_), Line("a")) << length;
    EXPECT_EQ(json.LostLines(), 20U);
  }
}

}  // namespace
}  // namespace trabex
