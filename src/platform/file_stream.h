// Files that are read or written piece by piece, for those that are too large to be held in memory beside
// what they are made of.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/native_file.h"

namespace trabex {

// Each call raises the numbers of files.h with the `source` given to the constructor; paths are as the system
// takes them (NativePath).

// Reads a file from its beginning.
class InputFile {
 public:
  // Only regular files are opened (75): a FIFO or a device would hold up the caller.
  InputFile(const std::string& path, std::string source);
  // One that is open already, at its beginning; likewise.
  InputFile(NativeFile file, std::string source);

  // In bytes, at the time of opening.
  std::uint64_t Size() const { return size_; }
  // Puts up to `size` bytes at `buffer` and returns their number; 0 is the end.
  std::size_t Read(char* buffer, std::size_t size);

 private:
  std::string source_;
  NativeFile file_;
  std::uint64_t size_ = 0;
};

// Writes a new file under a temporary name, to be moved into its place. Unless Release is called, the file is
// removed with this object.
class NewFile {
 public:
  // Creates `path`, readable for its owner only, following no symbolic link. A file of that name that was
  // left over when its writer died is removed first; one that another process is writing right now is left
  // alone (70).
  NewFile(const std::string& path, std::string source);
  ~NewFile();
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  void Write(std::string_view bytes);
  // Gives the file to the owner and the group of the one at `path` or, where there is none, of its folder. Does
  // nothing where the process has no right to that, as any user but root, or the system no need of it (Windows).
  void GiveToOwnerOf(const std::string& path);
  // Returns when all of it is on the disk.
  void Sync();
  // The file has got its final name: what is called `path` now is no longer this one.
  void Release() { released_ = true; }

 private:
  std::string path_;
  std::string source_;
  NativeFile file_;
  bool released_ = false;
};

}  // namespace trabex
