#include "platform/windows/files/file_error.h"

#include <utility>

#include "base/error.h"
#include "platform/common/file_error_text.h"

namespace trabex {

namespace {

constexpr DWORD kDiskQuotaExceeded = 1295;  // which the headers leave out

}  // namespace

int FileErrorNumber(DWORD code) {
  switch (code) {
    case ERROR_FILE_NOT_FOUND:
      return error_number::kFileNotFound;
    case ERROR_PATH_NOT_FOUND:
    case ERROR_INVALID_DRIVE:
    case ERROR_BAD_NETPATH:
    case ERROR_BAD_NET_NAME:
    case ERROR_BAD_PATHNAME:
    case ERROR_DIRECTORY:
      return error_number::kPathNotFound;
    case ERROR_ACCESS_DENIED:
    case ERROR_SHARING_VIOLATION:
    case ERROR_LOCK_VIOLATION:
    case ERROR_NETWORK_ACCESS_DENIED:
    case ERROR_PRIVILEGE_NOT_HELD:
      return error_number::kPermissionDenied;
    case ERROR_DISK_FULL:
    case ERROR_HANDLE_DISK_FULL:
    case kDiskQuotaExceeded:
    case ERROR_FILE_TOO_LARGE:
      return error_number::kDiskFull;
    case ERROR_FILE_EXISTS:
    case ERROR_ALREADY_EXISTS:
    case ERROR_INVALID_NAME:
    case ERROR_FILENAME_EXCED_RANGE:
    case ERROR_DIR_NOT_EMPTY:
    case ERROR_NOT_SAME_DEVICE:
    case ERROR_WRITE_PROTECT:
    case ERROR_BUSY:
    case ERROR_DELETE_PENDING:
    case ERROR_CANT_RESOLVE_FILENAME:
    case ERROR_INVALID_PARAMETER:
    case ERROR_TOO_MANY_OPEN_FILES:
    case ERROR_TOO_MANY_LINKS:
      return error_number::kPathFileAccess;
    default:
      return error_number::kDeviceIo;
  }
}

void RaiseFileError(DWORD code, std::string source) {
  RaiseFileErrorNumber(FileErrorNumber(code), std::move(source));
}

}  // namespace trabex
