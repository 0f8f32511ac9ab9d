#include "greylist/database_file.h"

#include <new>
#include <string_view>

#include "base/error.h"
#include "greylist/database_format.h"
#include "platform/file_replace.h"
#include "platform/file_stream.h"
#include "platform/files.h"

namespace trabex {

namespace {

constexpr const char* kLoadSource = "mGreyListing.LoadGreyListingDatabase";
constexpr const char* kSaveSource = "mGreyListing.SaveGreyListingDatabase";

// A folder that we may write to but not read cannot be synced; the file in it is in place all the same.
void SyncFolder(const std::string& path) {
  try {
    SyncFolderOf(path, kSaveSource);
  } catch (const Error& error) {
    if (error.Number() != error_number::kPermissionDenied) throw;
  }
}

}  // namespace

std::string BackupPath(const std::string& path) {
  return path + "bak";
}

GreyListingDatabase LoadDatabaseFile(const std::string& path, const PendingLimits& limits) {
  InputFile file(NativePath(path), kLoadSource);
  try {
    return ReadDatabase([&file](char* buffer, std::size_t size) { return file.Read(buffer, size); },
                        file.Size(), limits);
  } catch (const std::bad_alloc&) {
    throw Error(error_number::kOutOfMemory, kLoadSource, "Out of memory");
  }
}

void MakeDatabaseFolder(const std::string& path) {
  const std::string place = NativePath(path);
  const std::size_t folder_end = place.find_last_of(kPathSeparator);
  if (folder_end == std::string::npos || folder_end == 0) return;
  const std::string folder = place.substr(0, folder_end);
  // Without it all records would go with the folder in a power failure.
  if (CreateFolder(folder)) SyncFolder(folder);
}

void ReplaceDatabaseFile(const std::string& path, const FileContent& content) {
  MakeDatabaseFolder(path);
  const std::string place = NativePath(path);
  // It would be moved away as readily as a file.
  if (IsFolder(place)) {
    throw Error(error_number::kPathFileAccess, kSaveSource, "Path/File access error");
  }

  const std::string fresh = place + "new";
  NewFile file(fresh, kSaveSource);
  // Root may change the records of an instance that runs as another user, who has to read them.
  file.GiveToOwnerOf(place);
  content([&file](std::string_view bytes) { file.Write(bytes); });
  file.Sync();
  ReplaceFile(fresh, place, BackupPath(place), kSaveSource);
  file.Release();
  SyncFolder(place);
}

std::size_t SaveDatabaseFile(const std::string& path, const GreyListingDatabase& database, DateTime now,
                             std::uint64_t max_payload) {
  std::size_t left_out = 0;
  ReplaceDatabaseFile(
      path, [&](const BytesOut& out) { left_out = WriteDatabase(database, now, out, max_payload); });
  return left_out;
}

}  // namespace trabex
