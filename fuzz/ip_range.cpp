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

using namespace trabex;

void Require(bool condition) {
  if (!condition) std::abort();
}

IPAddress::IPv6Bytes BytesOf(const IPAddress& ip) {
  IPAddress::IPv6Bytes bytes{};
  std::copy(ip.Bytes().begin(), ip.Bytes().end(), bytes.begin());
  return bytes;
}

// The addresses before and behind `ip`, of the same family; the first and the last one are neighbours.
IPAddress Before(const IPAddress& ip) {
  if (ip.IsIPv4()) return IPAddress::IPv4(ip.Number() - 1);
  IPAddress::IPv6Bytes bytes = BytesOf(ip);
  for (std::size_t i = bytes.size(); i > 0 && bytes[i - 1]-- == 0; --i) {
  }
  return IPAddress::IPv6(bytes);
}
IPAddress Behind(const IPAddress& ip) {
  if (ip.IsIPv4()) return IPAddress::IPv4(ip.Number() + 1);
  IPAddress::IPv6Bytes bytes = BytesOf(ip);
  for (std::size_t i = bytes.size(); i > 0 && ++bytes[i - 1] == 0; --i) {
  }
  return IPAddress::IPv6(bytes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  std::vector<IPRange> ranges;
  for (std::string_view line : Split(input, '\n')) {
    try {
      const IPRange range = mCommon::InitIPRange(line);
      Require(range.low <= range.high && range.low.BitCount() == range.high.BitCount());
      Require(mCommon::InitIPRange(FormatIPAddress(range.low) + "-" + FormatIPAddress(range.high)) == range);
      ranges.push_back(range);
    } catch (const Error& error) {
      Require(error.Number() == error_number::kBadValue);
    }
  }
  const IPRangeList list(ranges);
  // The list has those of IPv4 first.
  std::vector<IPRange> ordered = ranges;
  std::stable_partition(ordered.begin(), ordered.end(),
                        [](const IPRange& range) { return range.low.IsIPv4(); });
  Require(list.Ranges() == ordered && list.Count() == ranges.size());
  for (const IPRange& range : ranges) {
    for (const IPAddress& ip : {Before(range.low), range.low, range.high, Behind(range.high)}) {
      Require(list.Contains(ip) == std::any_of(ranges.begin(), ranges.end(), [ip](const IPRange& held) {
                return mCommon::IPInRange(ip, held);
              }));
    }
  }
  return 0;
}
