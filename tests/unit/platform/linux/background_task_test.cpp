#include "platform/background_task.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "unit/platform/background_task_fixture.h"

namespace trabex {
namespace {

// What a task and its test both see, unlike all other memory.
struct Shared {
  std::atomic<bool> started{false};
  std::atomic<bool> may_end{false};
  std::atomic<pid_t> process{0};

  // In the task: waits until it may end. It polls, since no descriptor of ours is open there.
  void AwaitEnd() {
    process = getpid();
    started = true;
    while (!may_end) poll(nullptr, 0, 1);
  }
};

class SharedMemory {
 public:
  SharedMemory()
      : place_(mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
    new (place_) Shared;
  }
  ~SharedMemory() { munmap(place_, sizeof(Shared)); }
  SharedMemory(const SharedMemory&) = delete;
  SharedMemory& operator=(const SharedMemory&) = delete;
  Shared* operator->() const { return static_cast<Shared*>(place_); }

 private:
  void* place_;
};

// Whether `predicate` comes true while nothing of ours but the other process moves.
template <class Predicate>
bool Becomes(Predicate predicate) {
  for (int i = 0; i < 10000; ++i) {
    if (predicate()) return true;
    poll(nullptr, 0, 1);
  }
  return false;
}

class ForkedTaskTest : public BackgroundTaskTest {
 protected:
  SharedMemory shared_;
};

TEST_F(ForkedTaskTest, MemoryIsThatOfTheStart) {
  std::string value = "before";
  ASSERT_TRUE(Start(
      task_,
      [&] {
        shared_->AwaitEnd();
        std::string seen = value;
        value = "changed by the task";
        return seen;
      },
      Keep()));
  value = "after";
  shared_->may_end = true;
  ASSERT_TRUE(RunToEnd());
  EXPECT_EQ(result_->text, "before");
  EXPECT_EQ(value, "after");
}

TEST_F(ForkedTaskTest, ATaskThatDiesIsDistinguishedFromOneThatEnds) {
  const std::function<std::string()> deaths[] = {
      []() -> std::string { _exit(0); },
      []() -> std::string {
        raise(SIGKILL);
        return "not reached";
      },
      []() -> std::string { throw std::runtime_error("leaves the work"); },
  };
  for (const auto& death : deaths) {
    result_.reset();
    ASSERT_TRUE(Start(task_, death, Keep()));
    ASSERT_TRUE(RunToEnd());
    EXPECT_FALSE(result_->ended);
    EXPECT_EQ(result_->text, "");
  }
}

// The peer of a connection must see it close while the task still runs.
TEST_F(ForkedTaskTest, HoldsNoConnectionOpen) {
  std::array<int, 2> ends{};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
  ASSERT_TRUE(Start(
      task_,
      [&] {
        shared_->AwaitEnd();
        return std::string();
      },
      Keep()));
  ASSERT_TRUE(Becomes([&] { return shared_->started.load(); }));
  close(ends[0]);
  char byte = 0;
  EXPECT_EQ(recv(ends[1], &byte, 1, MSG_DONTWAIT), 0);
  close(ends[1]);
  EXPECT_TRUE(task_.Running());
  shared_->may_end = true;
  ASSERT_TRUE(RunToEnd());
}

// But the standard ones stay taken, so that no file of the task gets the number of one.
TEST_F(ForkedTaskTest, HasOnlyTheStandardDescriptorsAndItsPipe) {
  std::vector<int> extra;
  for (int i = 0; i < 20; ++i) extra.push_back(dup(STDERR_FILENO));
  ASSERT_TRUE(Start(
      task_,
      [] {
        std::string open_ones;
        int others = 0;
        for (int number = 0; number < 1024; ++number) {
          if (fcntl(number, F_GETFD) < 0) continue;
          if (number <= 2) {
            open_ones += std::to_string(number);
          } else {
            ++others;
          }
        }
        return open_ones + " and " + std::to_string(others);
      },
      Keep()));
  ASSERT_TRUE(RunToEnd());
  EXPECT_EQ(result_->text, "012 and 1");
  for (const int number : extra) close(number);
}

std::atomic<int> handled_signals{0};

TEST_F(ForkedTaskTest, SignalsToTheGroupDoNotDisturbIt) {
  handled_signals = 0;
  struct sigaction before {};
  struct sigaction counting {};
  counting.sa_handler = [](int) { ++handled_signals; };
  ASSERT_EQ(sigaction(SIGTERM, &counting, &before), 0);
  ASSERT_TRUE(Start(
      task_,
      [&] {
        shared_->AwaitEnd();
        return std::to_string(handled_signals);
      },
      Keep()));
  ASSERT_TRUE(Becomes([&] { return shared_->started.load(); }));
  kill(shared_->process, SIGTERM);
  kill(shared_->process, SIGINT);
  kill(shared_->process, SIGHUP);
  raise(SIGTERM);
  EXPECT_EQ(handled_signals, 1);  // ours still come
  shared_->may_end = true;
  ASSERT_TRUE(RunToEnd());
  sigaction(SIGTERM, &before, nullptr);
  EXPECT_TRUE(result_->ended);
  EXPECT_EQ(result_->text, "0");
}

TEST_F(ForkedTaskTest, CancelEndsItWithoutACall) {
  ASSERT_TRUE(Start(
      task_,
      [&] {
        shared_->AwaitEnd();
        return std::string();
      },
      Keep()));
  ASSERT_TRUE(Becomes([&] { return shared_->started.load(); }));
  task_.Cancel();
  EXPECT_FALSE(task_.Running());
  // Gone, and waited for: no process of that number is left.
  EXPECT_EQ(kill(shared_->process, 0), -1);
  RunUntilIdle(loop_);
  EXPECT_FALSE(result_.has_value());
  task_.Cancel();  // nothing to end
  ASSERT_TRUE(Start(
      task_, [] { return std::string("next"); }, Keep()));
  ASSERT_TRUE(RunToEnd());
  EXPECT_EQ(result_->text, "next");
}

TEST_F(ForkedTaskTest, DestructionEndsIt) {
  {
    BackgroundTask task(loop_);
    ASSERT_TRUE(Start(
        task,
        [&] {
          shared_->AwaitEnd();
          return std::string();
        },
        Keep()));
    ASSERT_TRUE(Becomes([&] { return shared_->started.load(); }));
  }
  EXPECT_EQ(kill(shared_->process, 0), -1);
  RunUntilIdle(loop_);
  EXPECT_FALSE(result_.has_value());
}

TEST_F(ForkedTaskTest, WaitReturnsAfterTheCall) {
  task_.Wait();  // nothing to wait for
  ASSERT_TRUE(Start(
      task_,
      [] {
        poll(nullptr, 0, 20);
        return std::string("waited for");
      },
      Keep()));
  task_.Wait();
  ASSERT_TRUE(result_.has_value());
  EXPECT_EQ(result_->text, "waited for");
  EXPECT_FALSE(task_.Running());
  result_.reset();
  RunUntilIdle(loop_);
  EXPECT_FALSE(result_.has_value());
}

// A task must not go on writing once another program may have taken over its file.
TEST_F(ForkedTaskTest, DiesWithTheProgram) {
  ChildProcess program([this] {
    SystemClock clock;
    EventLoop loop(clock);
    BackgroundTask task(loop);
    const bool started = Start(
        task,
        [this] {
          shared_->AwaitEnd();
          return std::string();
        },
        [](const TaskResult&) {});
    if (!started || !Becomes([this] { return shared_->started.load(); })) return 1;
    raise(SIGKILL);
    return 2;
  });
  EXPECT_EQ(program.Wait(), -SIGKILL);
  const pid_t process = shared_->process;
  ASSERT_GT(process, 0);
  // The process that inherits it may take a while to wait for it; then it is a zombie, but does nothing any
  // more.
  EXPECT_TRUE(Becomes([process] {
    if (kill(process, 0) != 0) return true;
    const int status = open(("/proc/" + std::to_string(process) + "/stat").c_str(), O_RDONLY);
    std::array<char, 200> text{};
    const ssize_t length = status < 0 ? 0 : read(status, text.data(), text.size() - 1);
    if (status >= 0) close(status);
    return length > 0 && std::string(text.data()).find(") Z ") != std::string::npos;
  }));
}

TEST_F(ForkedTaskTest, WithoutAProcessItDoesNotStart) {
  ChildProcess limited([this] {
    if (geteuid() == 0 && setresuid(65534, 65534, 65534) != 0) return 1;
    const rlimit none{0, 0};
    setrlimit(RLIMIT_NPROC, &none);
    if (Start(
            task_, [] { return std::string(); }, Keep()))
      return 2;
    if (task_.Running() || result_.has_value()) return 3;
    return 0;
  });
  EXPECT_EQ(limited.Wait(), 0);
}

TEST_F(BackgroundTaskTest, WaitForHasABound) {
  const SharedMemory shared;
  ASSERT_TRUE(Start(
      task_,
      [&shared] {
        shared->AwaitEnd();
        return "ended";
      },
      Keep()));
  EXPECT_FALSE(task_.WaitFor(Milliseconds{20}));
  EXPECT_TRUE(task_.Running());
  shared->may_end = true;
  EXPECT_TRUE(task_.WaitFor(Milliseconds{60000}));
  ASSERT_TRUE(result_);
  EXPECT_EQ(result_->text, "ended");
  EXPECT_TRUE(task_.WaitFor(Milliseconds{0}));
}

}  // namespace
}  // namespace trabex
