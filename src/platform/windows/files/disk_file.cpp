#include "platform/windows/files/disk_file.h"

#include <algorithm>
#include <utility>

#include "platform/windows/files/file_error.h"
#include "platform/windows/files/system_path.h"

namespace trabex {

OpenedFile OpenDiskFile(const std::string& path, const OpenMode& mode) {
  const SystemPath place(path);
  if (place.Code() != 0) return {{}, place.Code()};
  const HANDLE handle = ::CreateFileW(place.Get(), mode.access, mode.sharing, mode.security, mode.disposition,
                                      mode.flags, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    const DWORD code = GetLastError();
    if (code != ERROR_ACCESS_DENIED) return {{}, code};
    const DWORD attributes = GetFileAttributesW(place.Get());
    const bool is_folder =
        attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    return {{}, is_folder ? DWORD{ERROR_INVALID_NAME} : code};
  }
  NativeFile file(reinterpret_cast<std::intptr_t>(handle));
  if (GetFileType(handle) != FILE_TYPE_DISK) return {{}, ERROR_INVALID_NAME};
  return {std::move(file), 0};
}

std::size_t ReadSome(const NativeFile& file, char* buffer, std::size_t size, const std::string& source) {
  constexpr std::size_t kMaxAtOnce = std::size_t{1} << 30;
  DWORD got = 0;
  if (::ReadFile(HandleOf(file), buffer, static_cast<DWORD>(std::min(size, kMaxAtOnce)), &got, nullptr) != 0)
    return got;
  if (GetLastError() == ERROR_HANDLE_EOF) return 0;
  RaiseFileError(GetLastError(), source);
}

std::uint64_t SizeOf(const NativeFile& file, const std::string& source) {
  LARGE_INTEGER size{};
  if (GetFileSizeEx(HandleOf(file), &size) == 0) RaiseFileError(GetLastError(), source);
  return static_cast<std::uint64_t>(size.QuadPart);
}

}  // namespace trabex
