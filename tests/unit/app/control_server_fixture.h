// A server of requests whose callers are in the same process.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "app/control_server.h"
#include "base/error.h"
#include "support/control_caller.h"
#include "support/fake_clock.h"
#include "support/loop_runner.h"

namespace trabex {

class ControlServerTest : public testing::Test {
 protected:
  ControlServerTest() {
    requests_.Add("ECHO", [](const std::vector<std::string>& arguments) {
      ControlAnswer answer{.status = 3, .text = {}, .error = {}};
      for (const std::string& argument : arguments) answer.text += "[" + argument + "]";
      return answer;
    });
    requests_.Add("MUCH", [](const std::vector<std::string>&) {
      return ControlAnswer{.status = 0, .text = std::string(5'000'000, 'm'), .error = {}};
    });
    // As many slices as the argument says, each with its number.
    requests_.Add("SLICES", [this](const std::vector<std::string>& arguments) {
      const int count = std::stoi(arguments.at(0));
      return ControlSlices([this, count, next = 0](ControlAnswer& slice) mutable {
        slices_made_.push_back(count);
        slice.text = std::to_string(next) + ",";
        slice.status = next;
        return ++next < count;
      });
    });
    requests_.Add("LATER", [this](const std::vector<std::string>&) {
      ++later_asked_;
      return later_;
    });
    requests_.Add("RAISE", [](const std::vector<std::string>&) -> ControlReply {
      throw Error(53, "test", "File not found");
    });
    EXPECT_TRUE(server_.Open(name_));
    server_.Begin();
  }

  // What the caller gets when it says `line`.
  std::string Answer(const std::string& line) {
    ControlCallerPeer caller(name_);
    caller.Send(line);
    EXPECT_TRUE(RunUntil(loop_, [&] { return caller.Ended(); })) << line;
    return caller.Heard();
  }
  // What the callers have done so far has reached the server: what happens to pipes is told in its order, one after
  // the other, and later than the loop has nothing to do.
  void Settle() {
    EXPECT_EQ(Answer("ECHO\tlast\n"), "T 6\n[last]X 3\n");
    RunUntilIdle(loop_);
  }
  bool Runs(const std::function<bool()>& predicate) { return RunUntil(loop_, predicate); }
  void Pass(Milliseconds span) {
    clock_.Advance(span);
    RunUntilIdle(loop_);
  }

  const std::string name_ =
      "5B0E7C19D4A24F36A1F863D20C97BE48-server-" + std::to_string(std::random_device()());
  FakeClock clock_;
  EventLoop loop_{clock_};
  ControlRequests requests_;
  ControlServer server_{loop_, requests_};
  std::shared_ptr<PendingAnswer> later_ = std::make_shared<PendingAnswer>();
  int later_asked_ = 0;
  std::vector<int> slices_made_;
};

}  // namespace trabex
