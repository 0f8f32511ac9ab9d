#include "platform/file_replace.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "base/error.h"
#include "platform/files.h"
#include "platform/linux/descriptor.h"
#include "platform/linux/files/file_error.h"
#include "platform/linux/files/folder_of.h"

namespace trabex {

namespace {

bool TryToMove(const std::string& from, const std::string& to) {
  return std::rename(from.c_str(), to.c_str()) == 0;
}

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

void MoveFile(const std::string& from, const std::string& to, const std::string& source) {
  if (std::rename(from.c_str(), to.c_str()) == 0) return;
  const int code = errno;
  RaisePathError(code, access(from.c_str(), F_OK) == 0 ? to : from, source);
}

// The old file gets its second name by a hard link, so that `path` goes from the old file to the new one in
// one step and the backup from the older to the old one in another; neither is ever missing. Moving the old
// file to the backup's name first would leave `path` empty until the second move, and, if what stood at
// `path` was damaged, would put that over the only good copy before the new file counts. Exchanging the names
// of two files in one call would need no third name, but network file systems and some others do not have it.
void ReplaceFile(const std::string& fresh, const std::string& path, const std::string& backup,
                 const std::string& source) {
  const std::string old = path + "old";
  RemoveFile(old);
  if (link(path.c_str(), old.c_str()) == 0) {
    try {
      MoveFile(fresh, path, source);
    } catch (const Error&) {
      RemoveFile(old);
      throw;
    }
    TryToMove(old, backup);
    RemoveFile(old);  // still there when it could not be moved, or when both were names of one file
  } else if (errno == ENOENT) {
    MoveFile(fresh, path, source);
  } else {
    ReplaceWithoutLinks(fresh, path, backup, old, source);
  }
}

void SyncFolderOf(const std::string& path, const std::string& source) {
  const std::string folder = FolderOf(path);
  const Descriptor opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!opened) RaisePathError(errno, path, source);
  // Some file systems have nothing to sync for a folder and say so.
  if (fsync(opened.Get()) != 0 && errno != EINVAL && errno != EROFS) RaiseFileError(errno, source);
}

bool RemoveFile(const std::string& path) {
  return unlink(path.c_str()) == 0;
}

}  // namespace trabex
