// Whether something in a folder was written.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace trabex {

// Polled, never waited on. A file that another one was renamed over counts as written.
class ChangeWatch {
 public:
  virtual ~ChangeWatch() = default;
  // Whether something was written since the watch began or was last re-armed. Stays true until Rearm.
  virtual bool Signalled() = 0;
  // Forgets what was signalled and waits for the next change.
  virtual void Rearm() = 0;
};

enum class WatchedChanges {
  kWrites,             // a removal may count too, where the system does not tell them apart
  kWritesAndRemovals,  // also that a file is removed or moved away
};

// Watches the folder of `path`, and, where `path` is a symbolic link, also the folder of its target. Nothing
// when the system refuses (no such folder, no watches left).
std::unique_ptr<ChangeWatch> WatchFolderOf(const std::string& path,
                                           WatchedChanges changes = WatchedChanges::kWrites);

}  // namespace trabex
