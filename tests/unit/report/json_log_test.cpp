#include "report/json_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "unit/report/json_log_fixture.h"

namespace trabex {
namespace {

TEST_F(JsonLogTest, WritesTheLinesOfAnIterationAtItsEnd) {
  loop_.Post([this] {
    Write("a");
    Write("b");
    EXPECT_FALSE(std::filesystem::exists(path_));
  });
  RunUntilIdle(loop_);
  EXPECT_EQ(ReadFile(path_), Line("a") + Line("b"));
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

TEST_F(JsonLogTest, LineThatWasCutOffTakesNoOtherWithIt) {
  WriteFile(path_, "before\n{\"cut o");
  Write("a");
  json_.Flush();
  json_.Reopen();
  Write("b");
  json_.Flush();
  EXPECT_EQ(ReadFile(path_), "before\n{\"cut o\n" + Line("a") + Line("b"));
  EXPECT_EQ(json_.LostLines(), 0U);
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

}  // namespace
}  // namespace trabex
