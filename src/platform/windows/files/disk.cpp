#include "platform/disk.h"

namespace trabex {

bool AnyDiskMayHang() {
  return false;
}

std::optional<std::string> DiskThatMayHang(const std::string& /*path*/) {
  return std::nullopt;
}

}  // namespace trabex
