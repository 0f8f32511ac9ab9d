// How threads of the program hand work to the loop.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/event_loop.h"
#include "platform/windows/win.h"

namespace trabex {

class ThreadPosts {
 public:
  // `window` is woken by the message `wake`.
  ThreadPosts(HWND window, UINT wake) : window_(window), wake_(wake) {}

  // From any thread: the loop calls `action` in an iteration to come, on its own thread and in the order of the
  // calls. Does nothing, and drops `action`, when the loop has gone.
  void Post(std::function<void()> action);

  // --- for the loop
  // Calls what was posted before; returns the number of calls.
  std::size_t CallAll();
  // Drops what was posted and what will be.
  void Close();

 private:
  std::mutex mutex_;
  HWND window_;  // nullptr: the loop has gone
  UINT wake_;
  std::vector<std::function<void()>> posts_;
};

// Those of the loop. They may be kept longer than the loop lives.
std::shared_ptr<ThreadPosts> ThreadPostsOf(EventLoop& loop);

}  // namespace trabex
