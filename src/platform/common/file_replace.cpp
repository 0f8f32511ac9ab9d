#include "platform/file_replace.h"

#include "base/error.h"
#include "platform/common/file_names.h"

namespace trabex {

namespace {

// The backup moves aside, so that it can come back when a file cannot be moved.
void ReplaceWithoutLinks(const std::string& fresh, const std::string& path, const std::string& backup,
                         const std::string& old, const std::string& source) {
  TryToMove(backup, old);
  const bool moved = TryToMove(path, backup);
  try {
    MoveFile(fresh, path, source);
  } catch (const Error&) {
    if (moved) TryToMove(backup, path);
    TryToMove(old, backup);
    throw;
  }
  if (moved) {
    RemoveFile(old);
  } else {
    TryToMove(old, backup);
  }
}

}  // namespace

// The old file gets its second name by a hard link, so that `path` goes from the old file to the new one in
// one step and the backup from the older to the old one in another; neither is ever missing. Moving the old
// file to the backup's name first would leave `path` empty until the second move, and, if what stood at
// `path` was damaged, would put that over the only good copy before the new file counts. Exchanging the names
// of two files in one call would need no third name, but network file systems and some others do not have it.
void ReplaceFile(const std::string& fresh, const std::string& path, const std::string& backup,
                 const std::string& source) {
  const std::string old = path + "old";
  RemoveFile(old);
  switch (LinkFile(path, old)) {
    case LinkResult::kNoFile:
      return MoveFile(fresh, path, source);
    case LinkResult::kNoLinks:
      return ReplaceWithoutLinks(fresh, path, backup, old, source);
    case LinkResult::kDone:
      break;
  }
  try {
    MoveFile(fresh, path, source);
  } catch (const Error&) {
    RemoveFile(old);
    throw;
  }
  TryToMove(old, backup);
  RemoveFile(old);  // still there when it could not be moved, or when both were names of one file
}

}  // namespace trabex
