// Finds out, beside the loop, whether files answer, before the program reads them itself: a disk that hangs
// (platform/disk.h) holds up another process then, and sessions go on.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "base/log.h"
#include "platform/background_task.h"
#include "platform/event_loop.h"

namespace trabex {

class DiskProbe {
 public:
  // How long a disk may take to answer before the log says that it does not.
  static constexpr Milliseconds kSilence{5000};

  // Both outlive the object.
  DiskProbe(EventLoop& loop, Log& log);
  DiskProbe(const DiskProbe&) = delete;
  DiskProbe& operator=(const DiskProbe&) = delete;

  // Calls `then` when each of `files`, native paths, was read once, or has turned out not to be readable: from the loop,
  // or in this call where all are on disks that do not hang. A disk that does not answer is waited for, and the log says
  // when it answers again. What hangs from then on holds up the program. None may be running (asserted).
  void Read(const std::vector<std::string>& files, std::function<void()> then);
  // The same, but a disk is waited for no longer than kSilence. `then` is told which of `files` have not answered.
  void ReadInTime(const std::vector<std::string>& files,
                  std::function<void(std::vector<std::string> unanswered)> then);
  bool Running() const { return task_.Running(); }
  void Cancel();

 private:
  // The files on one disk.
  struct Disk {
    std::string mount;
    std::vector<std::string> files;
  };

  void Begin(const std::vector<std::string>& files, bool has_bound,
             std::function<void(std::vector<std::string> unanswered)> then);
  void Next();
  void Answered();
  void Silent();
  void GiveUp();

  Log& log_;
  std::vector<Disk> disks_;  // the last one is being read
  std::vector<std::string> unanswered_;
  std::function<void(std::vector<std::string> unanswered)> then_;
  bool has_bound_ = false;
  bool is_silent_ = false;
  Timer silence_;
  BackgroundTask task_;
};

}  // namespace trabex
