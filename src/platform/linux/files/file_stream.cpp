#include "platform/file_stream.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "platform/file_replace.h"
#include "platform/files.h"
#include "platform/linux/descriptor.h"
#include "platform/linux/files/file_error.h"
#include "platform/linux/files/regular_file.h"

namespace trabex {

namespace {

// The writer of a temporary file holds this lock on it, and the system takes the lock away with the process.
// False when another process holds it; a file system without locks counts as free.
bool Lock(int file) {
  return flock(file, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

// Whether `path` is the file that is open as `file`.
bool IsStill(const std::string& path, int file) {
  struct stat named {};
  struct stat opened {};
  return lstat(path.c_str(), &named) == 0 && fstat(file, &opened) == 0 && named.st_dev == opened.st_dev &&
         named.st_ino == opened.st_ino;
}

void RemoveLeftOver(const std::string& path, const std::string& source) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) return;
  if (S_ISREG(status.st_mode)) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file && (!Lock(file.Get()) || !IsStill(path, file.Get()))) RaiseFileError(EACCES, source);
  }
  RemoveFile(path);
}

}  // namespace

InputFile::InputFile(const std::string& path, std::string source) : source_(std::move(source)) {
  Descriptor file = OpenRegularFile(path, O_RDONLY);
  if (!file) RaisePathError(errno, path, source_);
  struct stat status {};
  if (fstat(file.Get(), &status) != 0) RaiseFileError(errno, source_);
  size_ = static_cast<std::uint64_t>(status.st_size);
  file_ = NativeFile(file.Release());
}

InputFile::InputFile(NativeFile file, std::string source)
    : source_(std::move(source)), file_(std::move(file)) {
  struct stat status {};
  if (fstat(static_cast<int>(file_.Value()), &status) != 0) RaiseFileError(errno, source_);
  if (!S_ISREG(status.st_mode)) RaiseFileError(ENXIO, source_);
  size_ = static_cast<std::uint64_t>(status.st_size);
}

std::size_t InputFile::Read(char* buffer, std::size_t size) {
  for (;;) {
    const ssize_t got = read(static_cast<int>(file_.Value()), buffer, size);
    if (got >= 0) return static_cast<std::size_t>(got);
    if (errno != EINTR) RaiseFileError(errno, source_);
  }
}

NewFile::NewFile(const std::string& path, std::string source) : path_(path), source_(std::move(source)) {
  SurviveFileSizeLimit();
  RemoveLeftOver(path_, source_);
  Descriptor file(open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file) RaisePathError(errno, path_, source_);
  // Another process that came in between took it for a left-over one.
  if (!Lock(file.Get()) || !IsStill(path_, file.Get())) RaiseFileError(EACCES, source_);
  file_ = NativeFile(file.Release());
}

NewFile::~NewFile() {
  if (!released_) RemoveFile(path_);
}

void NewFile::Write(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(static_cast<int>(file_.Value()), bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) RaiseFileError(errno, source_);
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
}

void NewFile::GiveToOwnerOf(const std::string& path) {
  if (geteuid() != 0) return;
  struct stat status {};
  if (stat(path.c_str(), &status) != 0 && stat(FolderOf(path).c_str(), &status) != 0) return;
  // By its descriptor: who owns the folder may have put something else in the place of the name.
  if (fchown(static_cast<int>(file_.Value()), status.st_uid, status.st_gid) != 0) return;
}

void NewFile::Sync() {
  if (fsync(static_cast<int>(file_.Value())) != 0) RaiseFileError(errno, source_);
}

}  // namespace trabex
