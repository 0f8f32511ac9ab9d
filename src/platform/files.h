// What the program needs of the file system beyond the standard library, with our error numbers.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace trabex {

// Paths: both "/" and "\" separate in text that people write; the platform's own is written when joining.
inline constexpr char kPathSeparator = '/';
bool IsPathSeparator(char c);

// The directory of the running executable, symbolic links resolved, without a separator at its end; and the
// executable's name without directory and extension.
std::string ProgramDirectory();
std::string ProgramName();

// A path as the system takes it: every "\" becomes the platform's separator. Never touches the disk.
std::string NativePath(std::string_view path);

// The run-time error for `errno`-like `code` of the last failed call, thrown by the functions below: 53 "File
// not found", 76 "Path not found", 70 "Permission denied", 75 "Path/File access error", 61 "Disk full", 57
// "Device I/O error".
[[noreturn]] void RaiseFileError(int code, std::string source);

// The time of the file's last change, for comparison with an earlier one (nanoseconds since an epoch of the
// system's). Raises the numbers above with `source`.
std::int64_t FileModificationStamp(const std::string& path, const std::string& source);

// Creates the last level of `path`; false when that failed (it may exist already).
bool CreateFolder(const std::string& path);

// Appends to one file; every Write is one system call, so lines of several processes do not mix.
class AppendFile {
 public:
  AppendFile() = default;
  ~AppendFile() { Close(); }
  AppendFile(const AppendFile&) = delete;
  AppendFile& operator=(const AppendFile&) = delete;

  // Creates the file when it is missing; false when it cannot be opened. Only regular files are opened (a
  // FIFO or a device would hold up the caller).
  bool Open(const std::string& path);
  bool IsOpen() const { return descriptor_ >= 0; }
  // Failures are ignored: false says that some of it was lost.
  bool Write(std::string_view text);
  void Close();

 private:
  std::intptr_t descriptor_ = -1;
};

// The most that ReadWholeFile takes into memory: far more than any file that people write.
inline constexpr std::uint64_t kGreatestWholeFile_bytes = std::uint64_t{256} * 1024 * 1024;

// The whole file as bytes. Raises the numbers above with `source`, and 7 "Out of memory" for one that is
// larger than the limit or than the memory there is.
std::string ReadWholeFile(const std::string& path, const std::string& source);

}  // namespace trabex
