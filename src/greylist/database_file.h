// The greylisting database file and its backup on the disk.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "base/date_time.h"
#include "greylist/database_format.h"
#include "greylist/greylisting_database.h"

namespace trabex {

// Paths as people write them, with either separator.

// The file that was in place before the last save.
std::string BackupPath(const std::string& path);

// The records of the file at `path`; of the pending ones the last that `limits` permit (ReadDatabase). Raises
// 321 "The file is corrupted", 457 for a duplicate key, 7 when the memory does not suffice, and the numbers
// of platform/files.h.
GreyListingDatabase LoadDatabaseFile(const std::string& path, const PendingLimits& limits = {});

// Creates the last level of the folder of the file at `path` when it is missing, on the disk as well. One that cannot be
// created is left to whoever writes the file. Raises the numbers of platform/files.h when it cannot be synced.
void MakeDatabaseFolder(const std::string& path);

// Hands the whole content of a file to `out`, piece by piece. What `out` raises passes through it.
using FileContent = std::function<void(const BytesOut& out)>;

// Writes `content` to a new file (`path` with "new" appended), and only when that is whole and on the disk
// makes the file at `path` the backup and the new one the file at `path` (ReplaceFile in
// platform/file_replace.h says which file has which name at each moment). Creates the last level of the
// folder when it is missing. Raises the numbers of platform/files.h, and what `content` raises; both files
// are then as they were, but for 57 from a folder that cannot be synced although the files in it were moved.
void ReplaceDatabaseFile(const std::string& path, const FileContent& content);

// The same with the records that have not expired at `now` as content. Returns how many records are left out
// because the payload would be longer than `max_payload` (WriteDatabase).
std::size_t SaveDatabaseFile(const std::string& path, const GreyListingDatabase& database, DateTime now,
                             std::uint64_t max_payload = kMaxPayload);

}  // namespace trabex
