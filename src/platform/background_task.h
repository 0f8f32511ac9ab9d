// Work that takes long and only reads the program's data, done beside the loop.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/event_loop.h"

namespace trabex {

// What became of a task.
struct TaskResult {
  bool ended = false;  // false: it died before it could return
  std::string text;    // what the work returned, its first 4095 bytes
};

// Runs one task at a time, in two parts.
//
// The work may read all of the program's data that it has captured, and finds it as it was when Start was
// called, whatever the program changes meanwhile. It can change nothing: what it writes to memory the program
// never sees. It uses neither the loop nor a socket nor the log; it may open files of its own. It can be
// ended at any moment, by Cancel or with the program.
//
// `done` runs in the program and is given the text that the work returned, and nothing else of it.
//
// On Linux the work runs in a forked process, whose memory the system copies page by page where the program
// writes; so the work may capture references to data of any size, and Start takes no longer for more of it.
// That process closes everything that the program has open at once (a peer must see its connection close),
// ignores all signals that can be ignored and dies with the program. A system without such copies would have
// to keep this promise in another way: the captured data would have to be copied before Start returns.
class BackgroundTask {
 public:
  // `loop` outlives the task.
  explicit BackgroundTask(EventLoop& loop);
  // As Cancel.
  ~BackgroundTask();
  BackgroundTask(const BackgroundTask&) = delete;
  BackgroundTask& operator=(const BackgroundTask&) = delete;

  // Runs `work`; an exception that leaves it counts as its death. `done` is called from the loop, never
  // inside this call, and may start the next task, but not destroy this object. False when the system cannot
  // run it; nothing is called then. None may be running (asserted).
  bool Start(const std::function<std::string()>& work, std::function<void(const TaskResult&)> done);
  bool Running() const;
  // Returns when the task has ended, `done` included; at once when none is running.
  void Wait();
  // Ends the task at once, wherever it is; `done` is not called.
  void Cancel();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace trabex
