// What tests of tasks in the background share.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/background_task.h"
#include "platform/clock.h"
#include "platform/event_loop.h"
#include "support/loop_runner.h"

namespace trabex {

// Most tests need only one of the two parts: the content, which does what a test wants. Its bytes are none.
template <class Body>
bool Start(BackgroundTask& task, Body body, std::function<void(const TaskResult&)> done) {
  return task.Start(
      [body](const auto&) -> std::string { return body(); },
      [](const std::string&, const TaskContent& content) { return content([](std::string_view) {}); }, "",
      std::move(done));
}

class BackgroundTaskTest : public testing::Test {
 protected:
  std::function<void(const TaskResult&)> Keep() {
    return [this](const TaskResult& result) { result_ = result; };
  }
  bool RunToEnd() {
    return RunUntil(loop_, [this] { return result_.has_value(); });
  }

  SystemClock clock_;
  EventLoop loop_{clock_};
  BackgroundTask task_{loop_};
  std::optional<TaskResult> result_;
};

}  // namespace trabex
