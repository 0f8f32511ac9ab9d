#include "platform/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <filesystem>

#include "base/error.h"
#include "platform/common/paths.h"
#include "platform/common/read_to_end.h"
#include "platform/linux/descriptor.h"
#include "platform/linux/files/file_error.h"
#include "platform/linux/files/regular_file.h"
#include "platform/permissions.h"

namespace trabex {

namespace {

std::int64_t ModificationStamp(const struct stat& status) {
  constexpr std::int64_t kNanoseconds = 1'000'000'000;
  return status.st_mtim.tv_sec * kNanoseconds + status.st_mtim.tv_nsec;
}

// Whether the file's last line has no end.
bool EndsInside(int file) {
  char last = 0;
  return lseek(file, -1, SEEK_END) >= 0 && read(file, &last, 1) == 1 && last != '\n';
}

}  // namespace

const char kPathSeparator = '/';

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

bool IsAbsolutePath(std::string_view path) {
  return path.starts_with(kPathSeparator) || NamesDriveOrServer(path);
}

std::string FolderOf(const std::string& path) {
  const std::size_t end = path.find_last_of(kPathSeparator);
  if (end == std::string::npos) return ".";
  return end == 0 ? "/" : path.substr(0, end);
}

std::string AbsolutePath(const std::string& path) {
  return std::filesystem::absolute(path).string();
}

bool IsFolder(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::int64_t FileModificationStamp(const std::string& path, const std::string& source) {
  const RootRights rights;
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
  Descriptor file = OpenRegularFile(path, O_RDWR | O_APPEND | O_CREAT, mode);
  const bool readable = static_cast<bool>(file);
  if (!readable && errno == EACCES) file = OpenRegularFile(path, O_WRONLY | O_APPEND | O_CREAT, mode);
  ends_inside_line_ = readable && EndsInside(file.Get());
  file_ = NativeFile(file.Release());
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
  if (written <= 0) return 0;
  ends_inside_line_ = text[static_cast<std::size_t>(written) - 1] != '\n';
  return static_cast<std::size_t>(written);
}

std::string ReadWholeFile(const std::string& path, const std::string& source) {
  const RootRights rights;
  const Descriptor file = OpenRegularFile(path, O_RDONLY);
  if (!file) RaisePathError(errno, path, source);
  struct stat status {};
  if (fstat(file.Get(), &status) != 0) RaiseFileError(errno, source);
  const auto read_some = [&](char* buffer, std::size_t size) {
    for (;;) {
      const ssize_t got = read(file.Get(), buffer, size);
      if (got >= 0) return static_cast<std::size_t>(got);
      if (errno != EINTR) RaiseFileError(errno, source);
    }
  };
  return ReadToEnd(read_some, static_cast<std::uint64_t>(status.st_size), source);
}

}  // namespace trabex
