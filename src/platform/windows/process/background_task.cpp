// The content is made at once and kept; a thread does the work with it.
#include "platform/background_task.h"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <exception>
#include <new>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "platform/windows/loop/thread_posts.h"
#include "platform/windows/win.h"

namespace trabex {

namespace {

constexpr std::size_t kMaxResultBytes = 4095;
// Of the bytes that are kept together: a task that is cancelled ends between two of them.
constexpr std::size_t kPieceBytes = std::size_t{1} << 20;

// Leaves the work of a task that was cancelled. Nothing that the work could take for an error of its own.
struct Cancelled {};

// What the thread has. Shared with the program, which only looks at `result` once the thread has ended.
struct Job {
  TaskWork work = nullptr;
  std::string argument;
  std::vector<std::string> pieces;
  std::string text;
  std::exception_ptr raised;  // by the content
  std::atomic<bool> cancelled{false};
  TaskResult result;

  void Keep(std::string_view bytes) {
    while (!bytes.empty()) {
      if (pieces.empty() || pieces.back().size() == kPieceBytes) pieces.emplace_back().reserve(kPieceBytes);
      const std::string_view part = bytes.substr(0, kPieceBytes - pieces.back().size());
      pieces.back() += part;
      bytes.remove_prefix(part.size());
    }
  }

  // Raises std::bad_alloc when the bytes cannot be kept.
  void TakeContent(const TaskContent& content) {
    bool short_of_memory = false;
    try {
      text = content([&](std::string_view bytes) {
        try {
          Keep(bytes);
        } catch (...) {
          short_of_memory = true;
          throw;
        }
      });
    } catch (...) {
      if (short_of_memory) throw std::bad_alloc();
      raised = std::current_exception();
    }
  }

  std::string GiveContent(const std::function<void(std::string_view)>& out) {
    for (std::string& piece : pieces) {
      if (cancelled) throw Cancelled();
      out(piece);
      piece = std::string();
    }
    if (cancelled) throw Cancelled();
    if (raised) std::rethrow_exception(raised);
    return text;
  }

  void Run() noexcept {
    SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_BELOW_NORMAL);  // the mail goes first
    try {
      std::string said = work(argument, [this](const auto& out) { return GiveContent(out); });
      said.resize(std::min(said.size(), kMaxResultBytes));
      result = {.ended = true, .text = std::move(said)};
    } catch (...) {
      result = {};
    }
  }
};

}  // namespace

struct BackgroundTask::State {
  explicit State(EventLoop& loop) : posts(ThreadPostsOf(loop)) {}

  std::shared_ptr<ThreadPosts> posts;
  std::shared_ptr<Job> job;  // nullptr: none
  std::thread thread;
  std::function<void(const TaskResult&)> done;

  void Finish() {
    thread.join();
    const TaskResult result = std::move(std::exchange(job, nullptr)->result);
    std::exchange(done, nullptr)(result);
  }
};

BackgroundTask::BackgroundTask(EventLoop& loop) : state_(std::make_unique<State>(loop)) {}

BackgroundTask::~BackgroundTask() {
  Cancel();
}

bool BackgroundTask::Start(const TaskContent& content, TaskWork work, const std::string& argument,
                           std::function<void(const TaskResult&)> done) {
  assert(!Running());
  try {
    auto job = std::make_shared<Job>();
    job->work = work;
    job->argument = argument;
    job->TakeContent(content);
    // Nobody has the job any more once the task was cancelled: then the thread, which had it too, has ended.
    const auto ended = [state = state_.get(), weak = std::weak_ptr<Job>(job)] {
      if (weak.lock()) state->Finish();
    };
    state_->thread = std::thread([job, posts = state_->posts, ended]() mutable {
      job->Run();
      job.reset();
      posts->Post(ended);
    });
    state_->job = std::move(job);
    state_->done = std::move(done);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  } catch (const std::system_error&) {
    return false;  // no thread
  }
}

bool BackgroundTask::Running() const {
  return state_->job != nullptr;
}

void BackgroundTask::Wait() {
  if (Running()) state_->Finish();
}

bool BackgroundTask::WaitFor(Milliseconds /*bound*/) {
  Wait();
  return true;
}

void BackgroundTask::Cancel() {
  if (!Running()) return;
  state_->job->cancelled = true;
  state_->thread.join();
  state_->job.reset();
  state_->done = nullptr;
}

void BackgroundTask::Abandon() {
  Cancel();
}

}  // namespace trabex
