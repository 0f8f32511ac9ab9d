#include "platform/file_stream.h"

#include <algorithm>
#include <utility>

#include "platform/file_replace.h"
#include "platform/windows/files/disk_file.h"
#include "platform/windows/files/file_error.h"
#include "platform/windows/files/retries.h"
#include "platform/windows/files/system_path.h"
#include "platform/windows/security.h"

namespace trabex {

namespace {

// A file that its writer has open cannot be opened to share it with nobody, and a file that only just could is removed by
// closing it: so nobody's file goes in between.
void RemoveLeftOver(const std::string& path, const std::string& source) {
  OpenedFile opened;
  const OpenMode alone{
      .access = DELETE, .sharing = 0, .flags = FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_DELETE_ON_CLOSE};
  const bool done = TryAgainWhileInUse([&] {
    opened = OpenDiskFile(path, alone);
    SetLastError(opened.code);
    return opened.file.IsOpen();
  });
  if (!done && opened.code == ERROR_SHARING_VIOLATION) RaiseFileError(opened.code, source);
  // Whatever else it was shows when the file is made.
}

}  // namespace

InputFile::InputFile(const std::string& path, std::string source) : source_(std::move(source)) {
  OpenedFile opened = OpenDiskFile(path, {.access = GENERIC_READ});
  if (!opened.file.IsOpen()) RaiseFileError(opened.code, source_);
  file_ = std::move(opened.file);
  size_ = SizeOf(file_, source_);
}

InputFile::InputFile(NativeFile file, std::string source)
    : source_(std::move(source)), file_(std::move(file)) {
  size_ = SizeOf(file_, source_);
}

std::size_t InputFile::Read(char* buffer, std::size_t size) {
  return ReadSome(file_, buffer, size, source_);
}

NewFile::NewFile(const std::string& path, std::string source) : path_(path), source_(std::move(source)) {
  RemoveLeftOver(path_, source_);
  OwnSecurity security;
  if (!security.IsValid()) RaiseFileError(ERROR_ACCESS_DENIED, source_);
  OpenedFile opened;
  // It can be given another name while it is open, but is written by nobody else.
  const OpenMode made{.access = GENERIC_WRITE,
                      .sharing = FILE_SHARE_READ | FILE_SHARE_DELETE,
                      .disposition = CREATE_NEW,
                      .security = security.Get()};
  const bool done = TryAgainWhileInUse([&] {
    opened = OpenDiskFile(path_, made);
    SetLastError(opened.code);
    return opened.file.IsOpen();
  });
  if (!done) RaiseFileError(opened.code, source_);
  file_ = std::move(opened.file);
}

NewFile::~NewFile() {
  if (!released_) RemoveFile(path_);
}

void NewFile::Write(std::string_view bytes) {
  constexpr std::size_t kMaxAtOnce = std::size_t{1} << 30;
  while (!bytes.empty()) {
    DWORD written = 0;
    const auto size = static_cast<DWORD>(std::min(bytes.size(), kMaxAtOnce));
    if (::WriteFile(HandleOf(file_), bytes.data(), size, &written, nullptr) == 0)
      RaiseFileError(GetLastError(), source_);
    bytes.remove_prefix(written);
  }
}

void NewFile::GiveToOwnerOf(const std::string& /*path*/) {}

void NewFile::Sync() {
  if (FlushFileBuffers(HandleOf(file_)) == 0) RaiseFileError(GetLastError(), source_);
}

}  // namespace trabex
