#include "platform/file_replace.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "platform/common/file_names.h"
#include "platform/files.h"
#include "platform/linux/descriptor.h"
#include "platform/linux/files/file_error.h"

namespace trabex {

bool TryToMove(const std::string& from, const std::string& to) {
  return std::rename(from.c_str(), to.c_str()) == 0;
}

LinkResult LinkFile(const std::string& path, const std::string& second) {
  if (link(path.c_str(), second.c_str()) == 0) return LinkResult::kDone;
  return errno == ENOENT ? LinkResult::kNoFile : LinkResult::kNoLinks;
}

void MoveFile(const std::string& from, const std::string& to, const std::string& source) {
  if (std::rename(from.c_str(), to.c_str()) == 0) return;
  const int code = errno;
  RaisePathError(code, access(from.c_str(), F_OK) == 0 ? to : from, source);
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
