// Whether a file that is read again and again has changed meanwhile.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "platform/clock.h"

namespace trabex {

// Asks the system once a second at most, so that it may be asked for every look-up. An empty path stands for what the
// system keeps elsewhere, where nobody can see whether it has changed: it counts as changed once a minute.
class FileChange {
 public:
  explicit FileChange(std::string path) : path_(std::move(path)) {}

  const std::string& Path() const { return path_; }
  // Whether the file has another date than when this was last asked, or has come or gone; true the first
  // time. `now` is the clock's monotonic time.
  bool Changed(MonotonicTime now);
  // A change that could not be applied: makes the next check true, a second from now at the earliest.
  void Forget() { stamp_ = kNeverSeen; }

 private:
  static constexpr std::int64_t kUnreadable = -1;
  static constexpr std::int64_t kNeverSeen = -2;

  std::string path_;
  std::optional<MonotonicTime> checked_;
  std::int64_t stamp_ = kNeverSeen;
};

}  // namespace trabex
