// IP ranges, one a line. A range list of those that can be read holds what one of them holds.
#include "match/ip_range.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/error.h"
#include "base/text.h"

namespace {

void Require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace trabex;
  const std::string input(reinterpret_cast<const char*>(data), size);
  std::vector<IPRange> ranges;
  for (std::string_view line : Split(input, '\n')) {
    try {
      const IPRange range = mCommon::InitIPRange(line);
      Require(range.low <= range.high);
      Require(mCommon::InitIPRange(FormatIPAddress(range.low) + "-" + FormatIPAddress(range.high)) == range);
      ranges.push_back(range);
    } catch (const Error& error) {
      Require(error.Number() == error_number::kBadValue);
    }
  }
  const IPRangeList list(ranges);
  for (const IPRange& range : ranges) {
    const std::uint32_t low = range.low.Number();
    const std::uint32_t high = range.high.Number();
    for (const std::uint32_t number : {low - 1, low, high, high + 1}) {
      const IPAddress ip = IPAddress::IPv4(number);
      Require(list.Contains(ip) == std::any_of(ranges.begin(), ranges.end(), [ip](const IPRange& held) {
                return mCommon::IPInRange(ip, held);
              }));
    }
  }
  return 0;
}
