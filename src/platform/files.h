// What the program needs of the file system beyond the standard library, with our error numbers.
//
// Functions with a `source` raise one of these with it: 53 "File not found", 76 "Path not found", 70
// "Permission denied", 75 "Path/File access error", 61 "Disk full", 57 "Device I/O error".
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/native_file.h"

namespace trabex {

// The platform's own separator, written when paths are joined. In text that people write both "/" and "\"
// separate.
extern const char kPathSeparator;
bool IsPathSeparator(char c);

// The directory of the running executable, symbolic links resolved, without a separator at its end; and the
// executable's name without directory and extension. Both may raise the numbers above.
std::string ProgramDirectory();
std::string ProgramName();

// A path as the system takes it: every separator becomes the platform's own. Never touches the disk.
std::string NativePath(std::string_view path);

// Whether a path, as people write it, names its place whatever the current folder is: a drive letter, ":" and a
// separator, or two backslashes, on every system. On Linux also a leading "/"; on Windows also two separators of
// either kind, while a single one in front leaves the drive open. Never touches the disk.
bool IsAbsolutePath(std::string_view path);

// Where the last name of a native path lies: "." for a name alone, the root for a name in it.
std::string FolderOf(const std::string& path);

// The same place as `path`, a native one, whatever the current folder is later.
std::string AbsolutePath(const std::string& path);

// Whether there is a folder at the native `path`, or behind a link there.
bool IsFolder(const std::string& path);

// The time of the file's last change, for comparison with an earlier one (nanoseconds since an epoch of the
// system's). With root's rights, as ReadWholeFile.
std::int64_t FileModificationStamp(const std::string& path, const std::string& source);

// What differs when a file has been changed, replaced, or is reached by a link that was set anew.
struct FileIdentity {
  std::uint64_t device = 0;
  std::uint64_t number = 0;  // on the device
  std::uint64_t size = 0;
  std::int64_t stamp = 0;  // FileModificationStamp
  friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
};

// That of the file behind all links; nothing when it is not there or cannot be reached.
std::optional<FileIdentity> FindFileIdentity(const std::string& path);

// Creates the last level of `path`; false when that failed (it may exist already).
bool CreateFolder(const std::string& path);

// Who may read a file that is made: as the system's mask says, or nobody but its owner and his group.
enum class NewFileReaders { kAsUsual, kGroup };

// Appends to one file; every Write is one system call, so lines of several processes do not mix.
class AppendFile {
 public:
  // Creates the file when it is missing; false when it cannot be opened. Only regular files are opened (a
  // FIFO or a device would hold up the caller).
  bool Open(const std::string& path, NewFileReaders readers = NewFileReaders::kAsUsual);
  // Why the last Open failed, as the errors above describe it; without a full stop.
  const std::string& WhyNotOpened() const { return why_not_opened_; }
  bool IsOpen() const { return file_.IsOpen(); }
  // Failures are ignored: false says that some of it was lost.
  bool Write(std::string_view text) { return WriteSome(text) == text.size() && IsOpen(); }
  // The same; returns how much from the front of `text` was written.
  std::size_t WriteSome(std::string_view text);
  // Whether the last line of the open file was cut off, by a crash before it was opened or by a disk that was full: its
  // last byte is no line feed. False where the file may not be read.
  bool EndsInsideLine() const { return ends_inside_line_; }
  void Close() { file_.Close(); }

 private:
  NativeFile file_;
  bool ends_inside_line_ = false;
  std::string why_not_opened_;
};

// The most that ReadWholeFile takes into memory: far more than any file that people write.
inline constexpr std::uint64_t kMaxWholeFileBytes = std::uint64_t{256} * 1024 * 1024;

// The whole file as bytes, read with RootRights. Raises also 7 "Out of memory" for one that is larger than the limit or
// than the memory there is.
std::string ReadWholeFile(const std::string& path, const std::string& source);

}  // namespace trabex
