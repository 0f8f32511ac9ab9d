#include "platform/file_replace.h"

#include "platform/common/file_names.h"
#include "platform/files.h"
#include "platform/windows/files/disk_file.h"
#include "platform/windows/files/file_error.h"
#include "platform/windows/files/open_path.h"
#include "platform/windows/files/retries.h"
#include "platform/windows/files/system_path.h"

namespace trabex {

namespace {

bool IsPlainFolder(const SystemPath& place, DWORD& attributes) {
  attributes = GetFileAttributesW(place.Get());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 &&
         (attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0;
}

// 0, or why not.
DWORD Move(const std::string& from, const std::string& to) {
  const SystemPath source(from);
  const SystemPath target(to);
  if (source.Code() != 0) return source.Code();
  if (target.Code() != 0) return target.Code();
  DWORD attributes = 0;
  if (IsPlainFolder(target, attributes)) return ERROR_ALREADY_EXISTS;  // not for trying again
  // Written through, so that the new name is on the disk when this returns.
  const bool done = TryAgainWhileInUse([&] {
    return MoveFileExW(source.Get(), target.Get(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0;
  });
  return done ? 0 : GetLastError();
}

}  // namespace

bool TryToMove(const std::string& from, const std::string& to) {
  return Move(from, to) == 0;
}

LinkResult LinkFile(const std::string& path, const std::string& second) {
  const SystemPath file(path);
  const SystemPath link(second);
  if (file.Code() != 0 || link.Code() != 0) return LinkResult::kNoLinks;
  if (TryAgainWhileInUse([&] { return CreateHardLinkW(link.Get(), file.Get(), nullptr) != 0; })) {
    return LinkResult::kDone;
  }
  const DWORD code = GetLastError();
  return code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND ? LinkResult::kNoFile
                                                                      : LinkResult::kNoLinks;
}

void MoveFile(const std::string& from, const std::string& to, const std::string& source) {
  if (const DWORD code = Move(from, to); code != 0) RaiseFileError(code, source);
}

// The moves are written through already; this is for those names that were not moved. Only an administrator may ask for
// it, so the refusal is none of ours.
void SyncFolderOf(const std::string& path, const std::string& source) {
  const std::string folder = FolderOf(path);
  if (!IsFolder(folder)) RaiseFileError(ERROR_PATH_NOT_FOUND, source);
  const OpenedFile opened = OpenPath(folder, GENERIC_WRITE);
  if (opened.file.IsOpen()) FlushFileBuffers(HandleOf(opened.file));
}

bool RemoveFile(const std::string& path) {
  const SystemPath place(path);
  DWORD attributes = 0;
  if (place.Code() != 0 || IsPlainFolder(place, attributes)) return false;
  // A link to a folder is a folder here.
  const bool is_folder =
      attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  return TryAgainWhileInUse(
      [&] { return (is_folder ? RemoveDirectoryW(place.Get()) : DeleteFileW(place.Get())) != 0; });
}

}  // namespace trabex
