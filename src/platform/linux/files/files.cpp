#include "platform/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <new>

#include "base/error.h"
#include "base/text.h"
#include "platform/linux/descriptor.h"
#include "platform/linux/files/file_error.h"
#include "platform/linux/files/regular_file.h"

namespace trabex {

namespace {

// The executable's path as it was at the first call: the system appends a mark to it once the file is
// replaced by a newer one.
const std::string& ProgramPath() {
  static const std::string path = [] {
    std::array<char, PATH_MAX> buffer{};
    const ssize_t length = readlink("/proc/self/exe", buffer.data(), buffer.size());
    if (length < 0) RaiseFileError(errno, "mFiles.ProgramPath");
    std::string found(buffer.data(), static_cast<std::size_t>(length));
    constexpr std::string_view kReplacedMark = " (deleted)";
    if (found.ends_with(kReplacedMark) && access(found.c_str(), F_OK) != 0) {
      found.resize(found.size() - kReplacedMark.size());
    }
    return found;
  }();
  return path;
}

// What is left of an open file of about `size` bytes. Raises std::bad_alloc when that is too much.
std::string ReadToEnd(int file, std::uint64_t size, const std::string& source) {
  if (size > kMaxWholeFileBytes) throw std::bad_alloc();
  // One byte more than the size, so that the end of a file that does not grow is seen without growing
  // the text.
  std::string content(static_cast<std::size_t>(size) + 1, '\0');
  std::size_t length = 0;
  for (;;) {
    const ssize_t got = read(file, content.data() + length, content.size() - length);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) RaiseFileError(errno, source);
    if (got == 0) break;
    length += static_cast<std::size_t>(got);
    if (length > kMaxWholeFileBytes) throw std::bad_alloc();
    if (length == content.size()) content.resize(content.size() * 2 + 4096);
  }
  content.resize(length);
  return content;
}

std::int64_t ModificationStamp(const struct stat& status) {
  constexpr std::int64_t kNanoseconds = 1'000'000'000;
  return status.st_mtim.tv_sec * kNanoseconds + status.st_mtim.tv_nsec;
}

}  // namespace

const char kPathSeparator = '/';

bool IsPathSeparator(char c) {
  return c == '/' || c == '\\';
}

std::string ProgramDirectory() {
  const std::string& path = ProgramPath();
  return path.substr(0, path.find_last_of('/'));
}

std::string ProgramName() {
  std::string name = ProgramPath().substr(ProgramPath().find_last_of('/') + 1);
  const std::size_t dot = name.find_last_of('.');
  if (dot != std::string::npos && dot > 0) name.resize(dot);
  return name;
}

std::string NativePath(std::string_view path) {
  std::string native(path);
  std::replace(native.begin(), native.end(), '\\', kPathSeparator);
  return native;
}

std::int64_t FileModificationStamp(const std::string& path, const std::string& source) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) RaisePathError(errno, path, source);
  return ModificationStamp(status);
}

std::optional<FileIdentity> FindFileIdentity(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return std::nullopt;
  return FileIdentity{.device = status.st_dev,
                      .number = status.st_ino,
                      .size = static_cast<std::uint64_t>(status.st_size),
                      .stamp = ModificationStamp(status)};
}

bool CreateFolder(const std::string& path) {
  return mkdir(path.c_str(), 0777) == 0;
}

bool AppendFile::Open(const std::string& path, NewFileReaders readers) {
  Close();
  SurviveFileSizeLimit();
  const mode_t mode = readers == NewFileReaders::kGroup ? 0640 : 0666;
  file_ = NativeFile(OpenRegularFile(path, O_WRONLY | O_APPEND | O_CREAT, mode).Release());
  if (IsOpen()) return true;
  try {
    RaisePathError(errno, path, "AppendFile.Open");
  } catch (const Error& error) {
    why_not_opened_ = error.Description();
  }
  return false;
}

std::size_t AppendFile::WriteSome(std::string_view text) {
  if (!IsOpen()) return 0;
  ssize_t written = 0;
  do {
    written = write(static_cast<int>(file_.Value()), text.data(), text.size());
  } while (written < 0 && errno == EINTR);
  return written > 0 ? static_cast<std::size_t>(written) : 0;
}

std::string ReadWholeFile(const std::string& path, const std::string& source) {
  const Descriptor file = OpenRegularFile(path, O_RDONLY);
  if (!file) RaisePathError(errno, path, source);
  struct stat status {};
  if (fstat(file.Get(), &status) != 0) RaiseFileError(errno, source);
  try {
    return ReadToEnd(file.Get(), static_cast<std::uint64_t>(status.st_size), source);
  } catch (const std::bad_alloc&) {
    throw Error(error_number::kOutOfMemory, source, "Out of memory");
  }
}

}  // namespace trabex
