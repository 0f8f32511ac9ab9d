#include "resolver/file_change.h"

#include <chrono>

#include "base/error.h"
#include "platform/files.h"

namespace trabex {

bool FileChange::Changed(MonotonicTime now) {
  if (checked_ && now - *checked_ < std::chrono::seconds(1)) return false;
  checked_ = now;
  std::int64_t stamp = kUnreadable;
  try {
    stamp = FileModificationStamp(path_, "mNameLookup.FileChange");
  } catch (const Error&) {
    // Missing counts as a state of its own.
  }
  return std::exchange(stamp_, stamp) != stamp;
}

}  // namespace trabex
