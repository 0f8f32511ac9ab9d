#include "platform/windows/loop/thread_posts.h"

#include <utility>

#include "platform/common/call_handler.h"
#include "platform/windows/loop/event_loop_impl.h"

namespace trabex {

void ThreadPosts::Post(std::function<void()> action) {
  const std::lock_guard lock(mutex_);
  if (window_ == nullptr) return;
  posts_.push_back(std::move(action));
  // One message for all that waits. The system refuses it when the window's queue is full; then the loop has an
  // iteration before it anyway, and looks here in each.
  if (posts_.size() == 1) PostMessageW(window_, wake_, 0, 0);
}

std::size_t ThreadPosts::CallAll() {
  std::vector<std::function<void()>> actions;
  {
    const std::lock_guard lock(mutex_);
    actions.swap(posts_);
  }
  for (const auto& action : actions) CallHandler(action);
  return actions.size();
}

void ThreadPosts::Close() {
  std::vector<std::function<void()>> dropped;  // what they hold may go only when the lock has
  const std::lock_guard lock(mutex_);
  window_ = nullptr;
  dropped.swap(posts_);
}

std::shared_ptr<ThreadPosts> ThreadPostsOf(EventLoop& loop) {
  return loop.GetImpl().thread_posts;
}

}  // namespace trabex
