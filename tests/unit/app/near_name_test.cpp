#include "app/near_name.h"

#include <gtest/gtest.h>

namespace trabex {
namespace {

TEST(EditDistance, CountsInsertedDeletedAndReplacedBytes) {
  const struct {
    const char* a;
    const char* b;
    std::size_t distance;
  } rows[] = {
      {"", "", 0},
      {"", "a", 1},
      {"abc", "abc", 0},
      {"ABC", "abc", 0},
      {"Timeot", "Timeout", 1},
      {"Timeoutt", "Timeout", 1},
      {"Timeuot", "Timeout", 2},
      {"abc", "xyz", 3},
      {"abc", "wxyz", 4},
      {"abcdefgh", "", 4},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(EditDistance(row.a, row.b, 3), row.distance) << row.a << " " << row.b;
    EXPECT_EQ(EditDistance(row.b, row.a, 3), row.distance) << row.a << " " << row.b;
  }
}

TEST(NearestName, IsWithinTwoEdits) {
  const std::vector<std::string> names = {"Log", "LogPath", "LogLevelServer", "LogLevelRemote"};
  EXPECT_EQ(NearestName("LogPaht", names), "LogPath");
  EXPECT_EQ(NearestName("logpath", names), "LogPath");
  EXPECT_EQ(NearestName("Logp", names), "Log");
  EXPECT_EQ(NearestName("LogPathes", names), "LogPath");
  EXPECT_EQ(NearestName("LogPathess", names), "");
  EXPECT_EQ(NearestName("", {}), "");
  EXPECT_EQ(DidYouMean("Logs", names), " (did you mean \"Log\"?)");
  EXPECT_EQ(DidYouMean("Timeout", names), "");
}

}  // namespace
}  // namespace trabex
