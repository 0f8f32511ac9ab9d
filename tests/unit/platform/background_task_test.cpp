#include "platform/background_task.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "unit/platform/background_task_fixture.h"

namespace trabex {
namespace {

TEST_F(BackgroundTaskTest, ReportsWhatTheWorkReturned) {
  for (const std::string& text : {std::string(), std::string("a result"), std::string("\0.\n", 3)}) {
    result_.reset();
    ASSERT_TRUE(Start(
        task_, [&] { return text; }, Keep()));
    EXPECT_TRUE(task_.Running());
    EXPECT_FALSE(result_.has_value());
    ASSERT_TRUE(RunToEnd());
    EXPECT_FALSE(task_.Running());
    EXPECT_TRUE(result_->ended);
    EXPECT_EQ(result_->text, text);
  }
}

TEST_F(BackgroundTaskTest, TheWorkIsGivenTheContentAndItsArgument) {
  const std::vector<std::string> pieces = {"one ", "", "two ", std::string(100000, 'x')};
  ASSERT_TRUE(task_.Start(
      [&](const auto& out) {
        for (const auto& piece : pieces) out(piece);
        return std::to_string(pieces.size());
      },
      [](const std::string& argument, const TaskContent& content) {
        std::string bytes;
        const std::string text = content([&](std::string_view piece) { bytes += piece; });
        return argument + "; " + text + " pieces; " + std::to_string(bytes.size()) + "; " +
               bytes.substr(0, 10);
      },
      "argument", Keep()));
  ASSERT_TRUE(RunToEnd());
  EXPECT_EQ(result_->text, "argument; 4 pieces; 100008; one two xx");
}

// So a full disk ends the content.
TEST_F(BackgroundTaskTest, WhatTakesTheContentMayRaise) {
  ASSERT_TRUE(task_.Start(
      [](const auto& out) {
        for (int i = 0; i < 10; ++i) out("more");
        return std::string("all");
      },
      [](const std::string&, const TaskContent& content) {
        try {
          return content([](std::string_view) { throw std::runtime_error("full"); });
        } catch (const std::runtime_error& error) {
          return std::string(error.what());
        }
      },
      "", Keep()));
  ASSERT_TRUE(RunToEnd());
  EXPECT_EQ(result_->text, "full");
}

TEST_F(BackgroundTaskTest, ALongResultIsCut) {
  ASSERT_TRUE(Start(
      task_, [] { return std::string(100000, 'x'); }, Keep()));
  ASSERT_TRUE(RunToEnd());
  EXPECT_TRUE(result_->ended);
  EXPECT_EQ(result_->text, std::string(4095, 'x'));
}

TEST_F(BackgroundTaskTest, TheNextMayStartInsideTheCall) {
  bool second_started = false;
  ASSERT_TRUE(Start(
      task_, [] { return std::string("first"); },
      [&](const TaskResult& result) {
        EXPECT_EQ(result.text, "first");
        second_started = Start(
            task_, [] { return std::string("second"); }, Keep());
      }));
  ASSERT_TRUE(RunToEnd());
  EXPECT_TRUE(second_started);
  EXPECT_EQ(result_->text, "second");
}

TEST_F(BackgroundTaskTest, WorkThatRaisesHasDied) {
  const TaskWork raising = [](const std::string&, const TaskContent& content) -> std::string {
    throw std::runtime_error(content([](std::string_view) {}));
  };
  ASSERT_TRUE(task_.Start([](const auto&) { return std::string("text"); }, raising, "", Keep()));
  ASSERT_TRUE(RunToEnd());
  EXPECT_FALSE(result_->ended);
  EXPECT_EQ(result_->text, "");
}

// Nobody but the work sees it, so it may stop there.
TEST_F(BackgroundTaskTest, WhatTheContentRaisesReachesTheWork) {
  ASSERT_TRUE(task_.Start(
      [](const auto& out) -> std::string {
        out("before");
        throw std::runtime_error("no more");
      },
      [](const std::string&, const TaskContent& content) {
        std::string bytes;
        try {
          return content([&](std::string_view piece) { bytes += piece; });
        } catch (const std::runtime_error& error) {
          return bytes + ", " + error.what();
        }
      },
      "", Keep()));
  ASSERT_TRUE(RunToEnd());
  EXPECT_TRUE(result_->ended);
  EXPECT_EQ(result_->text, "before, no more");
}

TEST_F(BackgroundTaskTest, ContentIsThatOfTheStart) {
  std::string value = "before";
  ASSERT_TRUE(Start(
      task_, [&] { return value; }, Keep()));
  value = "after";
  ASSERT_TRUE(RunToEnd());
  EXPECT_EQ(result_->text, "before");
}

TEST_F(BackgroundTaskTest, WaitReturnsAfterTheCallAndCancelWithoutOne) {
  task_.Wait();  // nothing to wait for
  ASSERT_TRUE(Start(
      task_, [] { return std::string("waited for"); }, Keep()));
  task_.Wait();
  ASSERT_TRUE(result_.has_value());
  EXPECT_EQ(result_->text, "waited for");
  EXPECT_FALSE(task_.Running());
  result_.reset();
  RunUntilIdle(loop_);
  EXPECT_FALSE(result_.has_value());
  ASSERT_TRUE(Start(
      task_, [] { return std::string("given up"); }, Keep()));
  task_.Cancel();
  EXPECT_FALSE(task_.Running());
  RunUntilIdle(loop_);
  EXPECT_FALSE(result_.has_value());
}

}  // namespace
}  // namespace trabex
