#include "platform/linux/files/regular_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

namespace trabex {

Descriptor OpenRegularFile(const std::string& path, int flags, mode_t mode) {
  struct stat status {};
  const bool exists = stat(path.c_str(), &status) == 0;
  if (exists && !S_ISREG(status.st_mode)) {
    errno = S_ISDIR(status.st_mode) ? EISDIR : ENXIO;
    return Descriptor();
  }
  Descriptor file(open(path.c_str(), flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, mode));
  if (file && (fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode))) {
    file.Close();
    errno = ENXIO;
  }
  return file;
}

}  // namespace trabex
