#include "platform/descriptors.h"

#include <dirent.h>
#include <sys/resource.h>

#include <limits>
#include <memory>

namespace trabex {

namespace {

std::int64_t CountOpen() {
  const auto close = [](DIR* folder) { closedir(folder); };
  const std::unique_ptr<DIR, decltype(close)> folder(opendir("/proc/self/fd"), close);
  if (!folder) return 0;
  std::int64_t count = 0;
  while (const dirent* const entry = readdir(folder.get())) {
    if (entry->d_name[0] != '.') ++count;
  }
  return count - 1;  // without the one by which they are read
}

}  // namespace

DescriptorUse FindDescriptorUse() {
  rlimit limit{};
  const bool known = getrlimit(RLIMIT_NOFILE, &limit) == 0;
  constexpr auto kMax = static_cast<rlim_t>(std::numeric_limits<std::int64_t>::max());
  return {CountOpen(), known && limit.rlim_cur <= kMax ? static_cast<std::int64_t>(limit.rlim_cur) : 0};
}

}  // namespace trabex
