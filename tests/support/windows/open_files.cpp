#include "support/open_files.h"

#include <filesystem>

#include "platform/windows/files/disk_file.h"

namespace trabex {

// Who wants a file for himself does not get it while it is open, however much it is shared.
std::size_t OpenFilesIn(const std::string& folder) {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(Wide(folder)))) {
    const OpenedFile opened =
        OpenDiskFile(Utf8(entry.path().wstring()), {.access = GENERIC_READ, .sharing = 0});
    if (opened.code == ERROR_SHARING_VIOLATION) ++count;
  }
  return count;
}

}  // namespace trabex
