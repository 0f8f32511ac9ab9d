#include "resolver/file_change.h"

#include <chrono>

#include "base/error.h"
#include "platform/files.h"

namespace trabex {

bool FileChange::Changed(MonotonicTime now) {
  const bool is_known_without_file = path_.empty() && stamp_ != kNeverSeen;
  const std::chrono::seconds pause(is_known_without_file ? 60 : 1);
  if (checked_ && now - *checked_ < pause) return false;
  checked_ = now;
  if (path_.empty()) {
    stamp_ = kUnreadable;
    return true;
  }
  std::int64_t stamp = kUnreadable;
  try {
    stamp = FileModificationStamp(path_, "mNameLookup.FileChange");
  } catch (const Error&) {
    // Missing counts as a state of its own.
  }
  return std::exchange(stamp_, stamp) != stamp;
}

}  // namespace trabex
