// Opening nothing but files on disks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/native_file.h"
#include "platform/windows/win.h"

namespace trabex {

inline constexpr DWORD kSharedWithAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

inline HANDLE HandleOf(const NativeFile& file) {
  return reinterpret_cast<HANDLE>(file.Value());
}

struct OpenedFile {
  NativeFile file;
  DWORD code = 0;  // why it is not open
};

// How a file is opened, in the terms of CreateFileW.
struct OpenMode {
  DWORD access = 0;
  DWORD sharing = kSharedWithAll;
  DWORD disposition = OPEN_EXISTING;
  DWORD flags = FILE_ATTRIBUTE_NORMAL;
  SECURITY_ATTRIBUTES* security = nullptr;
};

// Opens a file as CreateFileW does. A folder, a device or a pipe is ERROR_INVALID_NAME.
OpenedFile OpenDiskFile(const std::string& path, const OpenMode& mode);

// Puts up to `size` bytes at `buffer` and returns their number; 0 is the end. Raises the errors of files.h.
std::size_t ReadSome(const NativeFile& file, char* buffer, std::size_t size, const std::string& source);

// In bytes. Raises the errors of files.h.
std::uint64_t SizeOf(const NativeFile& file, const std::string& source);

}  // namespace trabex
