// Work that takes long, done beside the loop on data of the program.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/event_loop.h"

namespace trabex {

// What became of a task.
struct TaskResult {
  bool ended = false;  // false: it died before it could return
  std::string text;    // what the work returned, its first 4095 bytes
};

// The part of a task that looks at the program's data: hands bytes made of it to `out`, piece by piece, and
// returns a text that belongs to them. It may capture references to data of any size, and finds all of it as
// it was when Start was called. It changes nothing (on Linux the program would not see it) and calls nothing
// that waits, apart from `out`. What `out` raises passes through it.
using TaskContent = std::function<std::string(const std::function<void(std::string_view)>& out)>;

// The part of a task that may take as long as a disk does. It is a plain function, since it sees nothing of
// the program: `argument` and the bytes, which `content` hands over when it is called (once at most), are all
// it has. It uses neither the loop nor a socket nor the log; it may open files of its own.
using TaskWork = std::string (*)(const std::string& argument, const TaskContent& content);

// Runs one task at a time: the work, beside the loop, on the content as it was when Start was called,
// whatever the program changes meanwhile. The task can be ended at any moment, by Cancel or with the program.
// `done` runs in the program and is given the text that the work returned, and nothing else of it.
//
// On Linux both parts run in a forked process, whose memory the system copies page by page where the program
// writes. So the bytes go straight from the content to where the work writes them, and Start makes no copy of
// anything. That process closes everything that the program has open at once (a peer must see its connection
// close), ignores all signals that can be ignored and dies with the program.
//
// A system without such copies calls the content inside Start, keeps the bytes in memory and runs the work on
// a thread, whose content gives them out again. That Start takes the longer the more data there is. Content
// in slices, in several iterations of the loop, would mix the data of different moments.
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
  bool Start(const TaskContent& content, TaskWork work, const std::string& argument,
             std::function<void(const TaskResult&)> done);
  bool Running() const;
  // Returns when the task has ended, `done` included; at once when none is running.
  void Wait();
  // The same, but returns after `bound` at the latest; whether none is running. On Windows, where no disk counts as one
  // that hangs, as Wait.
  bool WaitFor(Milliseconds bound);
  // Ends the task, wherever it is; it does nothing more when this returns, and `done` is not called. On Linux
  // that takes no time, or a second where a disk that hangs holds the task up: then it ends as soon as that answers. A
  // thread ends at its next piece of content or when its work is done.
  void Cancel();
  // As Cancel, without waiting for anything: for work that only reads, and so may go on for as long as its disk hangs.
  void Abandon();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace trabex
