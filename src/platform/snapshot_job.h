// Work that takes long and only reads the program's memory, done beside the loop.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/event_loop.h"

namespace trabex {

// What became of a job.
struct JobResult {
  bool ended = false;  // false: it died before it could return
  std::string text;    // what the work returned, its first 4096 bytes
};

// Runs one job at a time on a copy of the whole memory as it is at the start, so that the program may change
// everything meanwhile; nothing that the job changes in memory is ever seen. On Linux that is a forked
// process, whose memory is copied page by page only where the program writes. It closes every descriptor of
// the program at once (a peer must see its connection close), ignores all signals that can be ignored and
// dies with the program. A platform that has no such copies may do the work inside Start.
class SnapshotJob {
 public:
  // `loop` outlives the job.
  explicit SnapshotJob(EventLoop& loop);
  // As Cancel.
  ~SnapshotJob();
  SnapshotJob(const SnapshotJob&) = delete;
  SnapshotJob& operator=(const SnapshotJob&) = delete;

  // Runs `work` in the copy; it must not use the loop, a socket or the log. An exception that leaves it
  // counts as its death. `done` is called from the loop, never inside this call, and may start the next job,
  // but not destroy this object. False when the system gives no process for it; nothing is called then. None
  // may be running (asserted).
  bool Start(const std::function<std::string()>& work, std::function<void(const JobResult&)> done);
  bool Running() const;
  // Returns when the job has ended, `done` included; at once when none is running.
  void Wait();
  // Ends the job where it stands; `done` is not called.
  void Cancel();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace trabex
