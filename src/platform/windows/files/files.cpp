#include "platform/files.h"

#include <algorithm>
#include <utility>

#include "base/error.h"
#include "platform/common/paths.h"
#include "platform/common/read_to_end.h"
#include "platform/windows/files/disk_file.h"
#include "platform/windows/files/file_error.h"
#include "platform/windows/files/open_path.h"
#include "platform/windows/files/system_path.h"
#include "platform/windows/security.h"

namespace trabex {

namespace {

// Whether the file's last line has no end.
bool EndsInside(HANDLE file) {
  LARGE_INTEGER last_byte{};
  last_byte.QuadPart = -1;
  char last = 0;
  DWORD got = 0;
  return SetFilePointerEx(file, last_byte, nullptr, FILE_END) != 0 &&
         ::ReadFile(file, &last, 1, &got, nullptr) != 0 && got == 1 && last != '\n';
}

std::uint64_t Joined(DWORD high, DWORD low) {
  return (std::uint64_t{high} << 32) | low;
}

// Nanoseconds since 1 January 1970: since the system's own epoch they would be too many.
std::int64_t Stamp(const FILETIME& time) {
  constexpr std::int64_t kUnixEpoch = 116'444'736'000'000'000;  // in units of 100 nanoseconds
  return (static_cast<std::int64_t>(Joined(time.dwHighDateTime, time.dwLowDateTime)) - kUnixEpoch) * 100;
}

// False with the code in `code`.
bool AskAbout(const std::string& path, BY_HANDLE_FILE_INFORMATION& about, DWORD& code) {
  const OpenedFile opened = OpenPath(path, FILE_READ_ATTRIBUTES);
  code = opened.code;
  if (!opened.file.IsOpen()) return false;
  if (GetFileInformationByHandle(HandleOf(opened.file), &about) != 0) return true;
  code = GetLastError();
  return false;
}

std::wstring ModulePath() {
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    if (length == 0) RaiseFileError(GetLastError(), "mFiles.ProgramPath");
    if (length < path.size()) return path.substr(0, length);
    path.resize(path.size() * 2);
  }
}

}  // namespace

const char kPathSeparator = '\\';

// A link leads to the folder of what it names. Any other path stays as the program was started by: a drive's letter
// says more to people than what is behind it.
const std::string& ProgramPath() {
  static const std::string path = [] {
    const std::wstring found = ModulePath();
    const DWORD attributes = GetFileAttributesW(found.c_str());
    const bool is_link =
        attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
    std::string own = Utf8(WithoutFormMark(found));
    if (!is_link) return own;
    std::string target = FinalPath(own);
    return target.empty() ? own : target;
  }();
  return path;
}

bool IsAbsolutePath(std::string_view path) {
  const bool from_server = path.size() >= 2 && IsPathSeparator(path[0]) && IsPathSeparator(path[1]);
  return from_server || NamesDriveOrServer(path);
}

std::string FolderOf(const std::string& path) {
  const std::size_t end = path.find_last_of("\\/");
  if (end == std::string::npos) return ".";
  const bool in_root = end == 0 || (end == 2 && path[1] == ':');
  return path.substr(0, in_root ? end + 1 : end);
}

std::string AbsolutePath(const std::string& path) {
  const SystemPath place(path);
  return place.Code() == 0 ? Utf8(WithoutFormMark(place.Text())) : path;
}

bool IsFolder(const std::string& path) {
  BY_HANDLE_FILE_INFORMATION about{};
  DWORD code = 0;
  return AskAbout(path, about, code) && (about.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

std::int64_t FileModificationStamp(const std::string& path, const std::string& source) {
  BY_HANDLE_FILE_INFORMATION about{};
  DWORD code = 0;
  if (!AskAbout(path, about, code)) RaiseFileError(code, source);
  return Stamp(about.ftLastWriteTime);
}

std::optional<FileIdentity> FindFileIdentity(const std::string& path) {
  BY_HANDLE_FILE_INFORMATION about{};
  DWORD code = 0;
  if (!AskAbout(path, about, code)) return std::nullopt;
  return FileIdentity{.device = about.dwVolumeSerialNumber,
                      .number = Joined(about.nFileIndexHigh, about.nFileIndexLow),
                      .size = Joined(about.nFileSizeHigh, about.nFileSizeLow),
                      .stamp = Stamp(about.ftLastWriteTime)};
}

bool CreateFolder(const std::string& path) {
  const SystemPath place(path);
  return place.Code() == 0 && CreateDirectoryW(place.Get(), nullptr) != 0;
}

bool AppendFile::Open(const std::string& path, NewFileReaders readers) {
  Close();
  std::optional<OwnSecurity> security;
  if (readers == NewFileReaders::kGroup) security.emplace();
  OpenedFile opened;
  bool readable = false;
  if (security && !security->IsValid()) {
    opened.code = ERROR_ACCESS_DENIED;
  } else {
    // Without the right to write elsewhere each write goes to the end, as it is then.
    OpenMode mode{.access = FILE_APPEND_DATA | FILE_READ_DATA | SYNCHRONIZE,
                  .disposition = OPEN_ALWAYS,
                  .security = security ? security->Get() : nullptr};
    opened = OpenDiskFile(path, mode);
    readable = opened.file.IsOpen();
    mode.access = FILE_APPEND_DATA | SYNCHRONIZE;
    if (!readable && opened.code == ERROR_ACCESS_DENIED) opened = OpenDiskFile(path, mode);
  }
  file_ = std::move(opened.file);
  ends_inside_line_ = readable && EndsInside(HandleOf(file_));
  if (IsOpen()) return true;
  try {
    RaiseFileError(opened.code, "AppendFile.Open");
  } catch (const Error& error) {
    why_not_opened_ = error.Description();
  }
  return false;
}

std::size_t AppendFile::WriteSome(std::string_view text) {
  if (!IsOpen()) return 0;
  DWORD written = 0;
  const bool done =
      ::WriteFile(HandleOf(file_), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) != 0;
  if (!done || written == 0) return 0;
  ends_inside_line_ = text[written - 1] != '\n';
  return written;
}

std::string ReadWholeFile(const std::string& path, const std::string& source) {
  const OpenedFile opened = OpenDiskFile(path, {.access = GENERIC_READ});
  if (!opened.file.IsOpen()) RaiseFileError(opened.code, source);
  return ReadToEnd(
      [&](char* buffer, std::size_t size) { return ReadSome(opened.file, buffer, size, source); },
      SizeOf(opened.file, source), source);
}

}  // namespace trabex
