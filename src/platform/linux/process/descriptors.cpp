#include "platform/descriptors.h"

#include <poll.h>
#include <sys/resource.h>

#include <algorithm>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

namespace trabex {

namespace {

// How many numbers the table of the process has room for; no descriptor is beyond. 0: it cannot be read.
std::size_t TableSize() {
  std::ifstream status("/proc/self/status");
  for (std::string name; status >> name;) {
    std::size_t size = 0;
    if (name == "FDSize:" && status >> size) return size;
  }
  return 0;
}

// The kernel is asked about many numbers in one call. To read /proc/self/fd takes a quarter of a second with 18,000
// descriptors.
std::int64_t CountOpen(std::size_t limit) {
  std::size_t end = TableSize();
  if (end == 0) end = limit;  // without a free descriptor nothing can be read
  // One call takes as many as the limit allows.
  std::vector<pollfd> numbers(std::clamp<std::size_t>(limit, 1, 4096));
  std::int64_t open = 0;
  for (std::size_t begin = 0; begin < end; begin += numbers.size()) {
    numbers.resize(std::min(numbers.size(), end - begin));
    for (std::size_t i = 0; i < numbers.size(); ++i) numbers[i].fd = static_cast<int>(begin + i);
    if (poll(numbers.data(), numbers.size(), 0) < 0) return 0;
    open += std::count_if(numbers.begin(), numbers.end(),
                          [](const pollfd& number) { return (number.revents & POLLNVAL) == 0; });
  }
  return open;
}

}  // namespace

DescriptorUse FindDescriptorUse() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return {};
  constexpr auto kMax = static_cast<rlim_t>(std::numeric_limits<std::int64_t>::max());
  return {CountOpen(limit.rlim_cur), limit.rlim_cur <= kMax ? static_cast<std::int64_t>(limit.rlim_cur) : 0};
}

}  // namespace trabex
