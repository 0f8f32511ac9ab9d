#include "platform/linux/files/file_error.h"

#include <signal.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "base/error.h"
#include "platform/common/file_error_text.h"
#include "platform/files.h"
#include "platform/sandbox.h"

namespace trabex {

namespace {

int FileErrorNumber(int code) {
  switch (code) {
    case ENOENT:
      return error_number::kFileNotFound;
    case ENOTDIR:
      return error_number::kPathNotFound;
    case EACCES:
    case EPERM:
      return error_number::kPermissionDenied;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return error_number::kDiskFull;
    case EEXIST:
    case EISDIR:
    case ELOOP:
    case ENAMETOOLONG:
    case ENOTEMPTY:
    case ENXIO:
    case EBUSY:
    case ETXTBSY:
    case EROFS:
    case EXDEV:
    case EINVAL:
    case EMFILE:
    case ENFILE:
      return error_number::kPathFileAccess;
    default:
      return error_number::kDeviceIo;
  }
}

}  // namespace

void RaiseFileError(int code, std::string source) {
  RaiseFileErrorNumber(FileErrorNumber(code), std::move(source));
}

void RaisePathError(int code, const std::string& path, const std::string& source) {
  if (code == ENOENT) {
    struct stat folder {};
    if (stat(FolderOf(path).c_str(), &folder) != 0 || !S_ISDIR(folder.st_mode)) code = ENOTDIR;
  }
  if (code == EACCES && (SandboxForbidsReading(path) || SandboxForbidsWritingIn(FolderOf(path)))) {
    throw Error(error_number::kPermissionDenied, source, kOutsideSandbox);
  }
  RaiseFileError(code, source);
}

void SurviveFileSizeLimit() {
  static const auto before = signal(SIGXFSZ, SIG_IGN);
  static_cast<void>(before);
}

}  // namespace trabex
