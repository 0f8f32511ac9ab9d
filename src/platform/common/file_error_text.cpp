#include "platform/common/file_error_text.h"

#include <utility>

#include "base/error.h"

namespace trabex {

namespace {

const char* FileErrorText(int number) {
  switch (number) {
    case error_number::kFileNotFound:
      return "File not found";
    case error_number::kPathNotFound:
      return "Path not found";
    case error_number::kPermissionDenied:
      return "Permission denied";
    case error_number::kPathFileAccess:
      return "Path/File access error";
    case error_number::kDiskFull:
      return "Disk full";
    default:
      return "Device I/O error";
  }
}

}  // namespace

void RaiseFileErrorNumber(int number, std::string source) {
  throw Error(number, std::move(source), FileErrorText(number));
}

}  // namespace trabex
