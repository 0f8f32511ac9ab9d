// Overlapped input and output of pipes, whose end is told in the loop.
#pragma once

#include <functional>
#include <memory>

#include "platform/windows/loop/thread_posts.h"
#include "platform/windows/win.h"

namespace trabex {

// One operation that the system is asked for with Overlapped(). Once the system has taken it (it is done or pending), it
// belongs to the system until its end, and Started is to be called.
class PipeOperation : private OVERLAPPED {
 public:
  using Done = std::function<void(DWORD code, DWORD bytes)>;

  // `done` is called from the loop of `posts` when the operation has ended, however that was: with 0 or the code of the
  // system's error. What it holds lives at least until then; it is dropped uncalled when the loop has gone.
  static std::unique_ptr<PipeOperation> Make(std::shared_ptr<ThreadPosts> posts, Done done);

  PipeOperation() : OVERLAPPED() {}
  OVERLAPPED* Overlapped() { return this; }
  static void Started(std::unique_ptr<PipeOperation> operation);

 private:
  friend class PipeCompletions;

  std::shared_ptr<ThreadPosts> posts_;
  Done done_;
};

// Lets operations on `pipe` end as PipeOperation says. False when the system cannot.
bool WatchOperationsOf(HANDLE pipe);

}  // namespace trabex
