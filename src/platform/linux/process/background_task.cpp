#include "platform/background_task.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <optional>
#include <utility>
#include <vector>

#include "base/error.h"
#include "platform/fd_watcher.h"
#include "platform/linux/descriptor.h"
#include "platform/linux/process/forked_copy.h"
#include "platform/linux/process/signals.h"

namespace trabex {

namespace {

// No more than a pipe takes at once, so the task never waits for us to read.
constexpr std::size_t kMaxResultBytes = 4096;
constexpr int kNiceness = 10;
constexpr char kEndMark = '.';

// How long a cancelled task may take to end: no time, unless its disk hangs.
constexpr Milliseconds kEnding{1000};

[[noreturn]] void RunCopy(const TaskContent& content, TaskWork work, const std::string& argument,
                          pid_t program, int result) noexcept {
  CloseAllButOne(result);
  DieWith(program);
  [[maybe_unused]] const int niceness = nice(kNiceness);  // the mail goes first
  try {
    std::string text = work(argument, content);
    text.resize(std::min(text.size(), kMaxResultBytes - 1));
    text += kEndMark;
    if (write(result, text.data(), text.size()) == static_cast<ssize_t>(text.size())) _exit(EXIT_SUCCESS);
  } catch (...) {
  }
  _exit(EXIT_FAILURE);
}

class Deadline {
 public:
  explicit Deadline(Milliseconds bound) : end_(std::chrono::steady_clock::now() + bound) {}

  // Waits until `descriptor` can be read or has ended; false: the time was over before.
  bool Await(int descriptor) const {
    for (;;) {
      const auto left = std::chrono::ceil<Milliseconds>(end_ - std::chrono::steady_clock::now());
      if (left <= Milliseconds{0}) return false;
      pollfd waiting{descriptor, POLLIN, 0};
      if (poll(&waiting, 1, static_cast<int>(left.count())) > 0) return true;
    }
  }

 private:
  std::chrono::steady_clock::time_point end_;
};

}  // namespace

struct BackgroundTask::State {
  explicit State(EventLoop& the_loop) : loop(the_loop) {}

  EventLoop& loop;
  pid_t process = -1;  // -1: none
  Descriptor result;   // reading end of the pipe that the task writes to; does not block
  std::string text;    // what came out of it
  std::optional<FdWatcher> watch;
  std::function<void(const TaskResult&)> done;
  std::vector<pid_t> left_behind;  // cancelled, but held up by their disk

  // The process is gone, or about to be.
  void Reap() {
    watch.reset();
    result.Close();
    int status = 0;
    while (waitpid(process, &status, 0) < 0 && errno == EINTR) continue;
    process = -1;
  }

  // Takes what the pipe holds. The pipe ends with the process, which by then has given its memory back;
  // waiting for that here would hold up the loop.
  void Read() {
    std::array<char, kMaxResultBytes> buffer;
    for (;;) {
      const ssize_t got = read(result.Get(), buffer.data(), buffer.size());
      if (got > 0) {
        text.append(buffer.data(), static_cast<std::size_t>(got));
      } else if (got == 0) {
        return Finish();
      } else if (errno != EINTR) {
        return;
      }
    }
  }

  // Drops what is still in the pipe; whether the pipe, and so the process, ends in time.
  bool HasEnded(const Deadline& deadline) const {
    std::array<char, kMaxResultBytes> buffer;
    while (deadline.Await(result.Get())) {
      if (read(result.Get(), buffer.data(), buffer.size()) == 0) return true;
    }
    return false;
  }

  void LeaveBehind() {
    watch.reset();
    result.Close();
    left_behind.push_back(std::exchange(process, -1));
  }

  void ReapLeftBehind() {
    std::erase_if(left_behind, [](pid_t one) { return waitpid(one, nullptr, WNOHANG) != 0; });
  }

  // A task that ended wrote its text and the mark; one that died, nothing.
  void Finish() {
    Reap();
    TaskResult outcome;
    outcome.ended = !text.empty() && text.back() == kEndMark;
    if (outcome.ended) {
      text.pop_back();
      outcome.text = std::move(text);
    }
    std::exchange(done, nullptr)(outcome);
  }
};

BackgroundTask::BackgroundTask(EventLoop& loop) : state_(std::make_unique<State>(loop)) {}

BackgroundTask::~BackgroundTask() {
  Cancel();
}

bool BackgroundTask::Start(const TaskContent& content, TaskWork work, const std::string& argument,
                           std::function<void(const TaskResult&)> done) {
  assert(!Running());
  state_->ReapLeftBehind();
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return false;
  Descriptor reading(ends[0]);
  Descriptor writing(ends[1]);
  if (fcntl(reading.Get(), F_SETFL, O_NONBLOCK) != 0) return false;
  const pid_t program = getpid();
  pid_t process = -1;
  {
    // Between fork and exit a handler of ours must not run in the copy, where its descriptors may be those of
    // the task's own files.
    const BlockedSignals blocked(AllSignals());
    process = fork();
    if (process == 0) RunCopy(content, work, argument, program, writing.Get());
  }
  if (process < 0) return false;
  writing.Close();
  state_->process = process;
  state_->result = std::move(reading);
  state_->done = std::move(done);
  try {
    state_->text.clear();
    state_->text.reserve(kMaxResultBytes);  // so that Read needs no memory
    state_->watch.emplace(state_->loop, state_->result.Get(), [this](FdReadiness) { state_->Read(); });
    state_->watch->SetInterest({.readable = true});
  } catch (const std::exception&) {
    Cancel();
    return false;
  }
  return true;
}

bool BackgroundTask::Running() const {
  return state_->process > 0;
}

void BackgroundTask::Wait() {
  const pid_t awaited = state_->process;
  while (Running() && state_->process == awaited) {  // `done` may have started the next one
    pollfd waiting{state_->result.Get(), POLLIN, 0};
    poll(&waiting, 1, -1);
    state_->Read();
  }
}

bool BackgroundTask::WaitFor(Milliseconds bound) {
  const Deadline deadline(bound);
  const pid_t awaited = state_->process;
  while (Running() && state_->process == awaited) {
    if (!deadline.Await(state_->result.Get())) return false;
    state_->Read();
  }
  return true;
}

// The signal takes effect when the system call that the task makes returns. A disk that hangs may keep it for ever; then
// the process is left alone, since it does nothing more anyway.
void BackgroundTask::Cancel() {
  if (!Running()) return;
  State& state = *state_;
  kill(state.process, SIGKILL);
  state.done = nullptr;
  if (state.HasEnded(Deadline(kEnding))) return state.Reap();
  state.LeaveBehind();
}

void BackgroundTask::Abandon() {
  if (!Running()) return;
  kill(state_->process, SIGKILL);
  state_->done = nullptr;
  state_->LeaveBehind();
}

}  // namespace trabex
