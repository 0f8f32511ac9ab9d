#include "platform/background_task.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <optional>
#include <utility>

#include "base/error.h"
#include "platform/fd_watcher.h"
#include "platform/linux/descriptor.h"
#include "platform/linux/process/signals.h"

namespace trabex {

namespace {

// No more than a pipe takes at once, so the task never waits for us to read.
constexpr std::size_t kMaxResultBytes = 4096;
constexpr int kNiceness = 10;
constexpr char kEndMark = '.';

// Closes all descriptors but the standard ones and `kept`. The standard ones stay, so that no file of the
// task gets the number of one and something written to it.
void CloseOthers(int kept) {
  const auto number = static_cast<unsigned>(kept);
  if (number > 3) close_range(3, number - 1, 0);
  close_range(number + 1, ~0U, 0);
}

[[noreturn]] void RunCopy(const TaskContent& content, TaskWork work, const std::string& argument,
                          pid_t program, int result) noexcept {
  CloseOthers(result);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != program) _exit(EXIT_FAILURE);          // it died before the line above
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

}  // namespace

struct BackgroundTask::State {
  explicit State(EventLoop& the_loop) : loop(the_loop) {}

  EventLoop& loop;
  pid_t process = -1;  // -1: none
  Descriptor result;   // reading end of the pipe that the task writes to; does not block
  std::string text;    // what came out of it
  std::optional<FdWatcher> watch;
  std::function<void(const TaskResult&)> done;

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
  state_->text.clear();
  state_->done = std::move(done);
  state_->watch.emplace(state_->loop, state_->result.Get(), [this](FdReadiness) { state_->Read(); });
  try {
    state_->watch->SetInterest({.readable = true});
  } catch (const Error&) {
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

void BackgroundTask::Cancel() {
  if (!Running()) return;
  kill(state_->process, SIGKILL);
  state_->Reap();
  state_->done = nullptr;
}

}  // namespace trabex
