// What an event loop puts off to a point of its iteration. The loop of each platform owns one and says when
// that point is reached.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "platform/event_loop.h"

namespace trabex {

// Posted actions, those of the iteration's end, and objects to be deleted then.
class DeferredTasks {
 public:
  DeferredTasks() {
    to_delete_.reserve(kDeletedWithoutMemory);
    deleting_.reserve(kDeletedWithoutMemory);
  }

  // So many objects in an iteration need no memory to be deleted.
  static constexpr std::size_t kDeletedWithoutMemory = 64;

  void Post(std::function<void()> action) { posts_.push_back(std::move(action)); }
  void OnIterationEnd(std::function<void()> action) { iteration_end_.push_back(std::move(action)); }
  // Takes nothing when it raises std::bad_alloc.
  void DeferredDelete(std::unique_ptr<DeferredDeletable>&& object) {
    if (object) to_delete_.push_back(std::move(object));
  }

  // Whether an iteration has something to do without any event, so that it must not wait.
  bool Waiting() const { return !posts_.empty() || !iteration_end_.empty() || !to_delete_.empty(); }
  // Calls what was posted before this call. Returns the number of calls.
  std::size_t CallPosts();
  // Runs the actions of the iteration's end and then deletes the objects, again and again while these add
  // more of either, but not for ever: what is left then waits for the next iteration. Returns the number of
  // actions.
  std::size_t EndIteration();
  // Deletes the objects and drops all actions; for the loop's end.
  void Clear();

 private:
  std::vector<std::function<void()>> posts_;
  std::vector<std::function<void()>> iteration_end_;
  std::vector<std::unique_ptr<DeferredDeletable>> to_delete_;
  // What of them is under way; kept for their memory.
  std::vector<std::function<void()>> running_posts_;
  std::vector<std::function<void()>> running_ends_;
  std::vector<std::unique_ptr<DeferredDeletable>> deleting_;
};

}  // namespace trabex
