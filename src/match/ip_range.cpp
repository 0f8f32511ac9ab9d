#include "match/ip_range.h"

#include <algorithm>
#include <cassert>
#include <iterator>
#include <limits>
#include <string>
#include <utility>

#include "base/error.h"
#include "base/numbers.h"
#include "base/text.h"

namespace trabex {

namespace {

constexpr int kIPv4Bits = 32;

[[noreturn]] void RaiseBadRange(std::string_view text) {
  throw Error(error_number::kBadValue, "mCommon.InitIPRange",
              "Invalid IP address range: \"" + std::string(text) + "\".");
}

// The length of the prefix that `written`, the text after the "/" of `text`, means.
int ReadPrefixLength(std::string_view text, std::string_view written) {
  if (written.find('.', 1) != std::string_view::npos) return mCommon::MaskToBits(mCommon::CLngIP(written));
  const auto bits = ParseInteger(written);
  if (!bits || *bits < 0 || *bits > kIPv4Bits) RaiseBadRange(text);
  return *bits;
}

// `slash` is the position of the first "/".
IPRange ReadMaskedRange(std::string_view text, std::size_t slash) {
  const std::string_view address = text.substr(0, slash);
  const std::string_view written_mask = text.substr(slash + 1);
  if (written_mask.find('/') != std::string_view::npos) RaiseBadRange(text);
  const int bits = ReadPrefixLength(text, written_mask);
  const IPAddress ip = mCommon::CLngIP(address);
  if (ip != ip.Prefix(bits)) {
    throw Error(error_number::kBadValue, "mCommon.InitIPRange",
                "Subnet mask \"" + std::string(written_mask) + "\" is inadmissible for IP address \"" +
                    std::string(address) + "\".");
  }
  return {ip, ip.PrefixEnd(bits)};
}

}  // namespace

IPRangeList::IPRangeList(const std::vector<IPRange>& ranges) {
  ranges_.reserve(ranges.size());
  for (const IPRange& range : ranges) {
    assert(range.low.IsIPv4() && range.high.IsIPv4());
    ranges_.push_back({range.low.Number(), range.high.Number()});
  }
  merged_ = Merged(ranges_);
}

std::vector<IPRangeList::Numbers> IPRangeList::Merged(std::vector<Numbers> ranges) {
  constexpr std::uint32_t kMaxNumber = std::numeric_limits<std::uint32_t>::max();
  std::erase_if(ranges, [](const Numbers& range) { return range.low > range.high; });
  std::sort(ranges.begin(), ranges.end(), [](const Numbers& a, const Numbers& b) { return a.low < b.low; });
  std::vector<Numbers> merged;
  for (const Numbers& range : ranges) {
    if (!merged.empty() && (merged.back().high == kMaxNumber || range.low <= merged.back().high + 1)) {
      merged.back().high = std::max(merged.back().high, range.high);
    } else {
      merged.push_back(range);
    }
  }
  merged.shrink_to_fit();
  return merged;
}

std::vector<IPRange> IPRangeList::Ranges() const {
  std::vector<IPRange> ranges;
  ranges.reserve(ranges_.size());
  for (const Numbers& range : ranges_) {
    ranges.push_back({IPAddress::IPv4(range.low), IPAddress::IPv4(range.high)});
  }
  return ranges;
}

bool IPRangeList::Contains(const IPAddress& ip) const {
  if (!ip.IsIPv4()) return false;
  const std::uint32_t number = ip.Number();
  const auto behind =
      std::upper_bound(merged_.begin(), merged_.end(), number,
                       [](std::uint32_t value, const Numbers& range) { return value < range.low; });
  return behind != merged_.begin() && number <= std::prev(behind)->high;
}

namespace mCommon {

IPAddress CLngIP(std::string_view text) {
  const auto ip = ParseIPv4Address(text, IPv4Form::kNumbers);
  if (!ip) {
    throw Error(error_number::kBadValue, "mCommon.CLngIP",
                "Invalid IP address: \"" + std::string(text) + "\".");
  }
  return *ip;
}

int MaskToBits(const IPAddress& mask) {
  const int bits = mask.CommonBits(kIPv4Broadcast);
  if (mask != BitsToMask(bits)) {
    throw Error(error_number::kBadValue, "mCommon.MaskToBits",
                "Invalid subnet mask: \"" + FormatIPAddress(mask) + "\".");
  }
  return bits;
}

IPAddress BitsToMask(int bits) {
  return bits > kIPv4Bits ? kIPv4Any : kIPv4Broadcast.Prefix(bits);
}

IPRange InitIPRange(std::string_view text) {
  if (const std::size_t slash = text.find('/'); slash != std::string_view::npos) {
    return ReadMaskedRange(text, slash);
  }
  const auto ends = Split(text, '-');
  if (ends.size() > 2) RaiseBadRange(text);
  const IPAddress low = CLngIP(ends.front());
  const IPRange range{low, ends.size() == 2 ? CLngIP(ends.back()) : low};
  if (CompareIP(range.high, range.low) < 0) RaiseBadRange(text);
  return range;
}

int CompareIP(const IPAddress& a, const IPAddress& b) {
  return a < b ? -1 : a > b ? 1 : 0;
}

bool IPInRange(const IPAddress& ip, const IPRange& range) {
  return range.low <= ip && ip <= range.high;
}

bool IPInRangeList(const IPAddress& ip, const IPRangeList& list) {
  return list.Contains(ip);
}

}  // namespace mCommon
}  // namespace trabex
