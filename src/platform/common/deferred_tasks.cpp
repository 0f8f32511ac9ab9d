#include "platform/common/deferred_tasks.h"

#include "platform/common/call_handler.h"

namespace trabex {

namespace {

// How often the end of an iteration runs; more than once only when it adds new work itself.
constexpr int kMaxEndRounds = 16;

}  // namespace

std::size_t DeferredTasks::CallPosts() {
  if (posts_.empty()) return 0;
  running_posts_.swap(posts_);
  for (const auto& action : running_posts_) CallHandler(action);
  const std::size_t calls = running_posts_.size();
  running_posts_.clear();
  return calls;
}

std::size_t DeferredTasks::EndIteration() {
  std::size_t calls = 0;
  for (int round = 0; round < kMaxEndRounds && (!iteration_end_.empty() || !to_delete_.empty()); ++round) {
    running_ends_.swap(iteration_end_);
    for (const auto& action : running_ends_) CallHandler(action);
    calls += running_ends_.size();
    running_ends_.clear();
    deleting_.swap(to_delete_);
    for (auto& object : deleting_) object.reset();  // in the order in which they were given
    deleting_.clear();
  }
  return calls;
}

void DeferredTasks::Clear() {
  while (!to_delete_.empty()) {
    std::vector<std::unique_ptr<DeferredDeletable>> objects;
    objects.swap(to_delete_);
    for (auto& object : objects) object.reset();
  }
  posts_.clear();
  iteration_end_.clear();
}

}  // namespace trabex
