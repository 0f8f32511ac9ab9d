// Pieces of replacing a file so that a crash or a full disk at any moment leaves a whole file: write a
// new one beside it and sync it (NewFile in file_stream.h), then move it into its place.
#pragma once

#include <string>

namespace trabex {

// Each raises the numbers of files.h with `source`; paths are as the system takes them (NativePath).

// Gives the file `from` the name `to` in one step; a file of that name is replaced.
void MoveFile(const std::string& from, const std::string& to, const std::string& source);

// Makes the file at `path`, if there is one, the one at `backup` and `fresh` the one at `path`; all lie in
// the same folder. Whenever the process or the machine ends meanwhile, the old or the new file is whole
// at `path`, and another at `backup` if one was there before. (On a file system without hard links there is a
// moment in which only `backup` is there, with the old file.) A backup that cannot be made, because its name
// belongs to a folder, say, is done without. After a failure both files are as they were. Uses the name
// `path` with "old" appended in between.
void ReplaceFile(const std::string& fresh, const std::string& path, const std::string& backup,
                 const std::string& source);

// Returns when the names in the folder of `path` are on the disk as they are now.
void SyncFolderOf(const std::string& path, const std::string& source);

// Removes a file or a symbolic link (never its target, never a folder); false when nothing was removed.
bool RemoveFile(const std::string& path);

}  // namespace trabex
