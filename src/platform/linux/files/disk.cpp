#include "platform/disk.h"

#include <fstream>
#include <ios>
#include <iterator>

#include "platform/linux/files/mount_table.h"

namespace trabex {

namespace {

MountTable MountsNow() {
  try {
    std::ifstream table("/proc/self/mountinfo");
    return MountTable(std::string(std::istreambuf_iterator<char>(table), {}));
  } catch (const std::ios_base::failure&) {
    return MountTable("");
  }
}

}  // namespace

bool AnyDiskMayHang() {
  return MountsNow().AnyMayHang();
}

std::optional<std::string> DiskThatMayHang(const std::string& path) {
  return MountsNow().ThatMayHang(path);
}

std::vector<std::optional<std::string>> DisksThatMayHang(const std::vector<std::string>& paths) {
  const MountTable mounts = MountsNow();
  std::vector<std::optional<std::string>> disks;
  disks.reserve(paths.size());
  for (const std::string& path : paths) disks.push_back(mounts.ThatMayHang(path));
  return disks;
}

}  // namespace trabex
