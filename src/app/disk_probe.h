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
  // Then the log says which disk does not answer, and that it does again.
  static constexpr Milliseconds kSilence{5000};

  // Both outlive the object.
  DiskProbe(EventLoop& loop, Log& log);
  DiskProbe(const DiskProbe&) = delete;
  DiskProbe& operator=(const DiskProbe&) = delete;

  // Calls `then` when each of `files`, native paths, was read once, or has turned out not to be readable: from the loop,
  // or in this call where all are on disks that do not hang. What hangs from then on holds up the program. None may be
  // running (asserted).
  void Read(const std::vector<std::string>& files, std::function<void()> then);
  bool Running() const { return task_.Running(); }
  void Cancel();

 private:
  // The files on one disk.
  struct Disk {
    std::string mount;
    std::string files;  // with a zero behind each
  };

  void Next();
  void Answered();

  Log& log_;
  std::vector<Disk> disks_;  // the last one is being read
  std::function<void()> then_;
  bool is_silent_ = false;
  Timer silence_;
  BackgroundTask task_;
};

}  // namespace trabex
