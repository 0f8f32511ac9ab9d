#include "platform/disk.h"

namespace trabex {

bool AnyDiskMayHang() {
  return false;
}

std::optional<std::string> DiskThatMayHang(const std::string& /*path*/) {
  return std::nullopt;
}

std::vector<std::optional<std::string>> DisksThatMayHang(const std::vector<std::string>& paths) {
  return std::vector<std::optional<std::string>>(paths.size());
}

}  // namespace trabex
