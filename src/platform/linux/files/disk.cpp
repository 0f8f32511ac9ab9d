#include "platform/disk.h"

#include <fstream>
#include <iterator>

#include "platform/linux/files/mount_table.h"

namespace trabex {

namespace {

MountTable MountsNow() {
  std::ifstream table("/proc/self/mountinfo");
  return MountTable(std::string(std::istreambuf_iterator<char>(table), {}));
}

}  // namespace

bool AnyDiskMayHang() {
  return MountsNow().AnyMayHang();
}

std::optional<std::string> DiskThatMayHang(const std::string& path) {
  return MountsNow().ThatMayHang(path);
}

}  // namespace trabex
