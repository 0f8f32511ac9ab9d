#include "platform/control_channel.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/clock.h"
#include "platform/instance_lock.h"
#include "platform/windows/win.h"
#include "support/loop_runner.h"

namespace trabex {
namespace {

constexpr std::chrono::seconds kPatience{20};

std::string OwnName(const char* what) {
  return "TrabexTest" + std::to_string(GetCurrentProcessId()) + what;
}

// One who calls, on a thread: says `text`, and keeps what it hears until it is hung up on.
class Caller {
 public:
  Caller(std::string name, std::string text, std::size_t most = std::string::npos)
      : thread_([this, name = std::move(name), text = std::move(text), most] {
          Call(name, text, most);
          has_ended = true;
        }) {}
  ~Caller() {
    if (thread_.joinable()) thread_.join();
  }

  std::atomic<bool> has_ended{false};
  // Once it has ended.
  std::string heard;
  std::string failure;

 private:
  void Call(const std::string& name, const std::string& text, std::size_t most) {
    auto called = CallInstance(name, kPatience);
    if (const auto* why = std::get_if<CallFailure>(&called)) {
      failure = "failure " + std::to_string(static_cast<int>(*why));
      return;
    }
    const auto call = std::move(std::get<std::unique_ptr<ControlCall>>(called));
    if (call->Send(text) != ChannelResult::kDone) failure = "not sent";
    std::array<char, 10000> buffer{};
    std::size_t received = 0;
    while (heard.size() < most) {
      const ChannelResult result = call->Receive(buffer, received);
      if (result == ChannelResult::kWouldBlock) failure = "nothing came";
      if (result != ChannelResult::kDone) return;
      heard.append(buffer.data(), received);
    }
  }

  std::thread thread_;
};

class WindowsControlChannelTest : public testing::Test {
 protected:
  bool Open(const std::string& name) {
    lock_ = TryLockInstance(loop_, name, [] {});
    channel_ = OpenControlChannel(loop_, name,
                                  [this](std::unique_ptr<ControlCaller> caller) { Take(std::move(caller)); });
    if (channel_) channel_->LetIn(true);
    return lock_ && channel_;
  }
  void Take(std::unique_ptr<ControlCaller> caller) {
    const std::size_t index = callers_.size();
    callers_.push_back(std::move(caller));
    heard_.emplace_back();
    ends_.push_back(false);
    if (one_at_a_time_) channel_->LetIn(false);
    callers_[index]->Watch({.readable = true, .writable = false}, [this, index] {
      std::array<char, 1000> buffer{};
      std::size_t received = 0;
      const ChannelResult result = callers_[index]->Receive(buffer, received);
      heard_[index].append(buffer.data(), received);
      if (result == ChannelResult::kClosed) {
        ends_[index] = true;
        callers_[index]->Watch({}, [] {});
      }
    });
  }

  SystemClock clock_;
  EventLoop loop_{clock_};
  std::unique_ptr<InstanceLock> lock_;
  std::unique_ptr<ControlChannel> channel_;
  std::vector<std::unique_ptr<ControlCaller>> callers_;
  std::vector<std::string> heard_;
  std::vector<bool> ends_;
  bool one_at_a_time_ = false;
};

TEST_F(WindowsControlChannelTest, CarriesBytesBothWays) {
  const std::string name = OwnName("both");
  ASSERT_TRUE(Open(name));
  const std::string much(50000, 'q');
  Caller caller(name, much, 5);
  ASSERT_TRUE(RunUntil(loop_, [&] { return callers_.size() == 1 && heard_[0] == much; }));
  std::size_t sent = 0;
  EXPECT_EQ(callers_[0]->Send("hello", sent), ChannelResult::kDone);
  EXPECT_EQ(sent, 5U);
  EXPECT_TRUE(RunUntil(loop_, [&] { return caller.has_ended && ends_[0]; }));
  EXPECT_EQ(caller.heard, "hello");
  EXPECT_EQ(caller.failure, "");
  EXPECT_EQ(callers_[0]->Send("x", sent), ChannelResult::kClosed);
}

TEST_F(WindowsControlChannelTest, WhatWasSentArrivesThoughWeHungUp) {
  const std::string name = OwnName("last");
  ASSERT_TRUE(Open(name));
  Caller caller(name, std::string(5000, 'x'));
  ASSERT_TRUE(RunUntil(loop_, [&] { return callers_.size() == 1 && !heard_[0].empty(); }));
  const std::string last(60000, 'y');
  std::size_t sent = 0;
  EXPECT_EQ(callers_[0]->Send(last, sent), ChannelResult::kDone);
  callers_[0].reset();
  EXPECT_TRUE(RunUntil(loop_, [&] { return caller.has_ended.load(); }));
  EXPECT_EQ(caller.heard, last.substr(0, sent));
  EXPECT_EQ(caller.failure, "");
}

// An answer of any length, sent as it is taken.
TEST_F(WindowsControlChannelTest, SendThatWouldBlockSaysSoAndGoesOn) {
  const std::string name = OwnName("full");
  ASSERT_TRUE(Open(name));
  Caller caller(name, "x");
  ASSERT_TRUE(RunUntil(loop_, [&] { return callers_.size() == 1 && heard_[0] == "x"; }));
  std::string answer;
  for (int i = 0; i < 200000; ++i) answer += std::to_string(i);
  std::size_t at = 0;
  int blocked = 0;
  const auto send = [&] {
    for (;;) {
      std::size_t sent = 0;
      const ChannelResult result = callers_[0]->Send(std::string_view(answer).substr(at), sent);
      at += sent;
      if (result == ChannelResult::kWouldBlock) ++blocked;
      if (at == answer.size()) return callers_[0].reset();
      if (result != ChannelResult::kDone) return;
    }
  };
  callers_[0]->Watch({.readable = false, .writable = true}, send);
  EXPECT_TRUE(RunUntil(loop_, [&] { return caller.has_ended.load(); }));
  EXPECT_TRUE(caller.heard == answer) << caller.heard.size() << " of " << answer.size();
  EXPECT_GT(blocked, 0);
}

TEST_F(WindowsControlChannelTest, NobodyIsThereWithoutALock) {
  const std::string name = OwnName("none");
  const auto failure = [&] {
    const Caller caller(name, "x");
    while (!caller.has_ended) Sleep(1);
    return caller.failure;
  };
  EXPECT_EQ(failure(), "failure " + std::to_string(static_cast<int>(CallFailure::kNoInstance)));
  lock_ = TryLockInstance(loop_, name, [] {});
  ASSERT_NE(lock_, nullptr);
  EXPECT_EQ(failure(), "failure " + std::to_string(static_cast<int>(CallFailure::kNoChannel)));
}

TEST_F(WindowsControlChannelTest, CallersWaitUntilTheyAreLetIn) {
  const std::string name = OwnName("wait");
  ASSERT_TRUE(Open(name));
  channel_->LetIn(false);
  one_at_a_time_ = true;
  Caller first(name, "x");
  Caller second(name, "x");
  RunUntil(
      loop_, [] { return false; }, Milliseconds(50));
  EXPECT_TRUE(callers_.empty());
  channel_->LetIn(true);
  ASSERT_TRUE(RunUntil(loop_, [&] { return callers_.size() == 1; }));
  RunUntil(
      loop_, [] { return false; }, Milliseconds(50));
  EXPECT_EQ(callers_.size(), 1U);
  channel_->LetIn(true);
  EXPECT_TRUE(RunUntil(loop_, [&] { return callers_.size() == 2; }));
  ASSERT_TRUE(RunUntil(loop_, [&] { return heard_[0] == "x" && heard_[1] == "x"; }));
  callers_.clear();
  EXPECT_TRUE(RunUntil(loop_, [&] { return first.has_ended && second.has_ended; }));
  EXPECT_EQ(first.failure + second.failure, "");
}

TEST_F(WindowsControlChannelTest, NameIsTakenOnce) {
  const std::string name = OwnName("name");
  ASSERT_TRUE(Open(name));
  EXPECT_EQ(OpenControlChannel(loop_, name, [](std::unique_ptr<ControlCaller>) {}), nullptr);
  channel_.reset();
  RunUntilIdle(loop_);
  EXPECT_TRUE(RunUntil(loop_, [&] {
    return OpenControlChannel(loop_, name, [](std::unique_ptr<ControlCaller>) {}) != nullptr;
  }));
}

TEST_F(WindowsControlChannelTest, MayGoInsideItsOwnCall) {
  const std::string name = OwnName("gone");
  lock_ = TryLockInstance(loop_, name, [] {});
  const std::string big(100, 'x');  // what the call holds must live on
  bool done = false;
  channel_ = OpenControlChannel(loop_, name, [&, big](std::unique_ptr<ControlCaller> caller) {
    channel_.reset();
    caller.reset();
    done = big.size() == 100;
  });
  ASSERT_NE(channel_, nullptr);
  channel_->LetIn(true);
  Caller caller(name, "x");
  EXPECT_TRUE(RunUntil(loop_, [&] { return done && caller.has_ended; }));
}

// Its operations outlive the loop for a moment.
TEST_F(WindowsControlChannelTest, MayGoWithItsLoop) {
  const std::string name = OwnName("loop");
  const auto lock = TryLockInstance(loop_, name, [] {});
  for (int i = 0; i < 20; ++i) {
    std::unique_ptr<Caller> caller;
    {
      EventLoop loop(clock_);
      std::unique_ptr<ControlCaller> taken;
      std::unique_ptr<ControlChannel> channel;
      ASSERT_TRUE(RunUntil(loop, [&] {
        channel = OpenControlChannel(loop, name,
                                     [&](std::unique_ptr<ControlCaller> one) { taken = std::move(one); });
        return channel != nullptr;
      }));
      channel->LetIn(true);
      caller = std::make_unique<Caller>(name, "x");
      ASSERT_TRUE(RunUntil(loop, [&] { return taken != nullptr; }));
    }
    caller.reset();
  }
}

}  // namespace
}  // namespace trabex
