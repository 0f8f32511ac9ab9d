#include "support/open_files.h"

#include <filesystem>
#include <system_error>

namespace trabex {

std::size_t OpenFilesIn(const std::string& folder) {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const std::filesystem::path target = std::filesystem::read_symlink(entry.path(), gone);
    if (!gone && target.parent_path() == std::filesystem::path(folder)) ++count;
  }
  return count;
}

}  // namespace trabex
