#include "platform/control_channel.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "platform/clock.h"
#include "platform/file_stream.h"
#include "platform/instance_lock.h"
#include "platform/linux/descriptor.h"
#include "platform/linux/process/abstract_address.h"
#include "support/child_process.h"
#include "support/loop_runner.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

// A name that no other test process uses.
std::string OwnName(const std::string& name) {
  return "5B0E7C19D4A24F36A1F863D20C97BE48-call-" + std::to_string(getpid()) + "-" + name;
}

constexpr std::chrono::seconds kPatience{10};

class ControlChannelTest : public testing::Test {
 protected:
  // An instance that lets in everybody who may ask.
  bool Open(const std::string& name) {
    lock_ = TryLockInstance(loop_, name, [] {});
    channel_ = OpenControlChannel(loop_, name,
                                  [this](std::unique_ptr<ControlCaller> caller) { Take(std::move(caller)); });
    if (channel_) channel_->LetIn(true);
    return lock_ && channel_;
  }
  void Take(std::unique_ptr<ControlCaller> caller) {
    if (one_at_a_time_) channel_->LetIn(false);
    callers_.push_back(std::move(caller));
    heard_.emplace_back();
    ends_.push_back(false);
    const std::size_t index = callers_.size() - 1;
    callers_[index]->Watch({.readable = true}, [this, index] { Read(index); });
  }
  void Read(std::size_t index) {
    std::array<char, 100> buffer{};
    std::size_t received = 0;
    const ChannelResult result = callers_[index]->Receive(buffer, received);
    heard_[index].append(buffer.data(), received);
    if (result != ChannelResult::kClosed) return;
    ends_[index] = true;
    callers_[index]->Watch({}, {});
  }
  // Calls as `user`, says its text and waits for an answer of one byte: 0 when it got one, 1 when it was hung up
  // on, and otherwise 10 and the reason.
  static int Call(const std::string& name, uid_t user, const std::string& text) {
    if (user != geteuid() && setuid(user) != 0) return 2;
    const auto called = CallInstance(name, kPatience);
    if (const auto* failure = std::get_if<CallFailure>(&called)) return 10 + static_cast<int>(*failure);
    const auto& call = std::get<std::unique_ptr<ControlCall>>(called);
    if (call->Send(text) != ChannelResult::kDone) return 3;
    std::array<char, 1> answer{};
    std::size_t received = 0;
    const ChannelResult result = call->Receive(answer, received);
    return result == ChannelResult::kDone ? 0 : result == ChannelResult::kClosed ? 1 : 4;
  }
  static constexpr int Failed(CallFailure failure) { return 10 + static_cast<int>(failure); }

  SystemClock clock_;
  EventLoop loop_{clock_};
  std::unique_ptr<InstanceLock> lock_;
  std::unique_ptr<ControlChannel> channel_;
  std::vector<std::unique_ptr<ControlCaller>> callers_;
  std::vector<std::string> heard_;
  std::vector<bool> ends_;
  bool one_at_a_time_ = false;
};

TEST_F(ControlChannelTest, CarriesBytesBothWays) {
  const std::string name = OwnName("both");
  ASSERT_TRUE(Open(name));
  ChildProcess caller([&] { return Call(name, geteuid(), "hello"); });
  ASSERT_TRUE(RunUntil(loop_, [&] { return callers_.size() == 1 && heard_[0] == "hello"; }));
  std::size_t sent = 0;
  EXPECT_EQ(callers_[0]->Send("x", sent), ChannelResult::kDone);
  EXPECT_EQ(sent, 1U);
  EXPECT_EQ(caller.Wait(), 0);
  EXPECT_TRUE(RunUntil(loop_, [&] { return ends_[0]; }));
  EXPECT_EQ(callers_[0]->Send("x", sent), ChannelResult::kClosed);
}

TEST_F(ControlChannelTest, AFileComesAlong) {
  const std::string name = OwnName("file");
  TempFolder folder;
  WriteFile(folder / "records", "some text");
  ASSERT_TRUE(Open(name));
  for (const std::string file : {"records", "none"}) {
    ChildProcess caller([&] {
      const auto called = CallInstance(name, kPatience);
      const auto& call = std::get<std::unique_ptr<ControlCall>>(called);
      call->Attach(folder / file);
      return call->Send("first") == ChannelResult::kDone && call->Send("second") == ChannelResult::kDone ? 0
                                                                                                         : 1;
    });
    ASSERT_TRUE(RunUntil(loop_, [&] { return !heard_.empty() && heard_.back() == "firstsecond"; }));
    EXPECT_EQ(caller.Wait(), 0);
    NativeFile attached = callers_.back()->TakeFile();
    EXPECT_FALSE(callers_.back()->TakeFile().IsOpen()) << "taken once";
    EXPECT_EQ(attached.IsOpen(), file == "records");
    if (attached.IsOpen()) {
      InputFile input(std::move(attached), "test");
      std::array<char, 100> buffer{};
      EXPECT_EQ(input.Size(), 9U);
      EXPECT_EQ(std::string(buffer.data(), input.Read(buffer.data(), buffer.size())), "some text");
    }
    heard_.back().clear();
  }
}

TEST_F(ControlChannelTest, WhatWasSentArrivesThoughWeHungUp) {
  const std::string name = OwnName("last");
  ASSERT_TRUE(Open(name));
  ChildProcess caller([&] { return Call(name, geteuid(), std::string(5000, 'x')); });
  ASSERT_TRUE(RunUntil(loop_, [&] { return callers_.size() == 1 && !heard_[0].empty(); }));
  ASSERT_LT(heard_[0].size(), 5000U) << "there is something that nobody read";
  std::size_t sent = 0;
  EXPECT_EQ(callers_[0]->Send("x", sent), ChannelResult::kDone);
  callers_[0].reset();
  EXPECT_EQ(caller.Wait(), 0);
}

TEST_F(ControlChannelTest, SendThatWouldBlockSaysSo) {
  const std::string name = OwnName("full");
  ASSERT_TRUE(Open(name));
  Notice done;
  ChildProcess caller([&] {
    const auto called = CallInstance(name, kPatience);
    done.Await();
    return 0;
  });
  ASSERT_TRUE(RunUntil(loop_, [&] { return callers_.size() == 1; }));
  const std::string much(100000, 'x');
  std::size_t sent = 0;
  int sends = 0;
  while (callers_[0]->Send(much, sent) == ChannelResult::kDone) ASSERT_LT(++sends, 1000);
  EXPECT_EQ(callers_[0]->Send(much, sent), ChannelResult::kWouldBlock);
  EXPECT_EQ(sent, 0U);
  done.Give();
  EXPECT_EQ(caller.Wait(), 0);
}

TEST_F(ControlChannelTest, NobodyIsThereWithoutALock) {
  const std::string name = OwnName("none");
  EXPECT_EQ(Call(name, geteuid(), "x"), Failed(CallFailure::kNoInstance));
  lock_ = TryLockInstance(loop_, name, [] {});
  ASSERT_NE(lock_, nullptr);
  EXPECT_EQ(Call(name, geteuid(), "x"), Failed(CallFailure::kNoChannel));
  ASSERT_TRUE((lock_.reset(), Open(name)));
  lock_.reset();
  EXPECT_EQ(Call(name, geteuid(), "x"), Failed(CallFailure::kNoInstance));
}

TEST_F(ControlChannelTest, CallersWaitUntilTheyAreLetIn) {
  const std::string name = OwnName("wait");
  ASSERT_TRUE(Open(name));
  channel_->LetIn(false);
  ChildProcess first([&] { return Call(name, geteuid(), "x"); });
  ChildProcess second([&] { return Call(name, geteuid(), "x"); });
  RunUntilIdle(loop_);
  EXPECT_TRUE(callers_.empty());
  one_at_a_time_ = true;
  channel_->LetIn(true);
  ASSERT_TRUE(RunUntil(loop_, [&] { return callers_.size() == 1; }));
  RunUntilIdle(loop_);
  EXPECT_EQ(callers_.size(), 1U);
  channel_->LetIn(true);
  EXPECT_TRUE(RunUntil(loop_, [&] { return callers_.size() == 2; }));
  ASSERT_TRUE(RunUntil(loop_, [&] { return heard_[0] == "x" && heard_[1] == "x"; }));
  callers_.clear();
  EXPECT_EQ(first.Wait() + second.Wait(), 2 * 1) << "hung up on";
}

TEST_F(ControlChannelTest, NameIsTakenOnce) {
  const std::string name = OwnName("name");
  ASSERT_TRUE(Open(name));
  EXPECT_EQ(OpenControlChannel(loop_, name, [](std::unique_ptr<ControlCaller>) {}), nullptr);
  channel_.reset();
  EXPECT_NE(OpenControlChannel(loop_, name, [](std::unique_ptr<ControlCaller>) {}), nullptr);
}

TEST_F(ControlChannelTest, MayGoInsideItsOwnCall) {
  const std::string name = OwnName("gone");
  lock_ = TryLockInstance(loop_, name, [] {});
  const std::string big(100, 'x');  // what the call holds must live on
  bool done = false;
  channel_ = OpenControlChannel(loop_, name, [&, big](std::unique_ptr<ControlCaller> caller) {
    channel_.reset();
    caller.reset();
    done = big.size() == 100;
  });
  channel_->LetIn(true);
  ChildProcess caller([&] { return Call(name, geteuid(), "x"); });
  EXPECT_TRUE(RunUntil(loop_, [&] { return done; }));
  caller.Wait();
}

// Rejected by the instance itself, also when a caller does not look first.
TEST_F(ControlChannelTest, OnlyRootAndTheOwnUserComeThrough) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become somebody else";
  constexpr uid_t kSomebody = 12345;
  constexpr uid_t kSomebodyElse = 12346;
  const std::string name = OwnName("user");
  ChildProcess instance([&] {
    if (seteuid(kSomebody) != 0 || !Open(name)) return 100;
    const auto call_as = [&](uid_t user, bool politely) {
      if (seteuid(0) != 0) return -1;  // only to make the one who calls
      ChildProcess caller([&] {
        if (politely) return Call(name, user, "x");
        if (setuid(user) != 0) return 2;
        const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const AbstractAddress address(name);
        if (connect(socket.Get(), address.Get(), address.Length()) != 0) return 5;
        char byte = 0;
        return recv(socket.Get(), &byte, 1, 0) > 0 ? 0 : 1;
      });
      if (seteuid(kSomebody) != 0) return -2;
      RunUntil(loop_, [&] {
        std::size_t sent = 0;
        for (const auto& one : callers_) one->Send("x", sent);
        return caller.HasEnded();
      });
      return caller.Wait();
    };
    if (call_as(kSomebody, true) != 0) return 1;
    if (call_as(0, true) != 0) return 2;
    if (callers_.size() != 2) return 3;
    if (call_as(kSomebodyElse, true) != Failed(CallFailure::kOtherUser)) return 4;
    if (call_as(kSomebodyElse, false) != 1) return 5;
    if (callers_.size() != 2) return 6;
    return call_as(kSomebody, true);  // the pause is over by then
  });
  EXPECT_EQ(instance.Wait(), 0);
}

// Who takes the name of the channel first could tell root anything.
TEST_F(ControlChannelTest, ChannelOfSomebodyElseIsNotTalkedTo) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become somebody else";
  const std::string name = OwnName("foreign");
  Notice open;
  ChildProcess thief([&] {
    if (setuid(12345) != 0) return 1;
    const auto channel = OpenControlChannel(loop_, name, [](std::unique_ptr<ControlCaller>) {});
    open.Give();
    for (;;) pause();
    return 0;
  });
  open.Await();
  lock_ = TryLockInstance(loop_, name, [] {});
  ASSERT_NE(lock_, nullptr);
  EXPECT_EQ(OpenControlChannel(loop_, name, [](std::unique_ptr<ControlCaller>) {}), nullptr);
  EXPECT_EQ(Call(name, geteuid(), "x"), Failed(CallFailure::kForeignChannel));
}

TEST_F(ControlChannelTest, FloodOfStrangersDoesNotSpinTheLoop) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become somebody else";
  const std::string name = OwnName("flood");
  ASSERT_TRUE(Open(name));
  ChildProcess flooding([&] {
    if (setuid(12345) != 0) return 1;
    const AbstractAddress address(name);
    for (;;) {
      const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
      if (connect(socket.Get(), address.Get(), address.Length()) != 0) return 2;
    }
  });
  int ticks = 0;
  Timer timer(loop_, Milliseconds(10), [&] { ++ticks; });
  timer.Enable();
  int iterations = 0;
  ASSERT_TRUE(RunUntil(loop_, [&] {
    ++iterations;
    return ticks >= 50;
  }));
  EXPECT_LT(iterations, 200);
  EXPECT_TRUE(callers_.empty());
  ChildProcess own([&] { return Call(name, geteuid(), "x"); });
  EXPECT_TRUE(RunUntil(loop_, [&] { return callers_.size() == 1 && heard_[0] == "x"; })) << "comes through";
}

}  // namespace
}  // namespace trabex
