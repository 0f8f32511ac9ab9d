#include "match/ip_range.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <optional>
#include <utility>

#include "base/error.h"
#include "base/numbers.h"
#include "base/text.h"

namespace trabex {

namespace {

constexpr IPNumber kGreatestIP = std::numeric_limits<IPNumber>::max();

// The same addresses in ascending ranges that neither overlap nor touch.
std::vector<IPRange> Merged(std::vector<IPRange> ranges) {
  std::erase_if(ranges, [](const IPRange& range) { return range.low > range.high; });
  std::sort(ranges.begin(), ranges.end(), [](const IPRange& a, const IPRange& b) { return a.low < b.low; });
  std::vector<IPRange> merged;
  for (const IPRange& range : ranges) {
    if (!merged.empty() && (merged.back().high == kGreatestIP || range.low <= merged.back().high + 1)) {
      merged.back().high = std::max(merged.back().high, range.high);
    } else {
      merged.push_back(range);
    }
  }
  merged.shrink_to_fit();
  return merged;
}

std::optional<IPNumber> ParseByte(std::string_view text) {
  const auto number = ParseInteger(text);
  if (!number || *number < 0 || *number > 255) return std::nullopt;
  return static_cast<IPNumber>(*number);
}

std::optional<IPNumber> ParseDottedQuad(std::string_view text) {
  // Counted first, so that a long text with many dots is not taken apart for nothing.
  if (std::count(text.begin(), text.end(), '.') != 3) return std::nullopt;
  IPNumber ip = 0;
  for (std::string_view part : Split(text, '.')) {
    const auto byte = ParseByte(part);
    if (!byte) return std::nullopt;
    ip = ip << 8 | *byte;
  }
  return ip;
}

[[noreturn]] void RaiseBadRange(std::string_view text) {
  throw Error(error_number::kBadValue, "mCommon.InitIPRange",
              "Invalid IP address range: \"" + std::string(text) + "\".");
}

// The mask that `written`, what stands behind the "/" of `text`, means.
IPNumber ReadMask(std::string_view text, std::string_view written) {
  if (written.find('.', 1) != std::string_view::npos) {
    const IPNumber mask = mCommon::CLngIP(written);
    mCommon::MaskToBits(mask);
    return mask;
  }
  const auto bits = ParseByte(written);
  if (!bits || *bits > 32) RaiseBadRange(text);
  return mCommon::BitsToMask(static_cast<int>(*bits));
}

// `slash` is the position of the first "/".
IPRange ReadMaskedRange(std::string_view text, std::size_t slash) {
  const std::string_view address = text.substr(0, slash);
  const std::string_view written_mask = text.substr(slash + 1);
  if (written_mask.find('/') != std::string_view::npos) RaiseBadRange(text);
  const IPNumber mask = ReadMask(text, written_mask);
  const IPNumber ip = mCommon::CLngIP(address);
  if ((ip & ~mask) != 0) {
    throw Error(error_number::kBadValue, "mCommon.InitIPRange",
                "Subnet mask \"" + std::string(written_mask) + "\" is inadmissible for IP address \"" +
                    std::string(address) + "\".");
  }
  return {ip, ip | ~mask};
}

}  // namespace

IPRangeList::IPRangeList(std::vector<IPRange> ranges)
    : ranges_(std::move(ranges)), merged_(Merged(ranges_)) {}

bool IPRangeList::Contains(IPNumber ip) const {
  const auto behind =
      std::upper_bound(merged_.begin(), merged_.end(), ip,
                       [](IPNumber value, const IPRange& range) { return value < range.low; });
  return behind != merged_.begin() && ip <= std::prev(behind)->high;
}

namespace mCommon {

IPNumber CLngIP(std::string_view text) {
  const auto ip = ParseDottedQuad(text);
  if (!ip) {
    throw Error(error_number::kBadValue, "mCommon.CLngIP",
                "Invalid IP address: \"" + std::string(text) + "\".");
  }
  return *ip;
}

std::string FormatIP(IPNumber ip) {
  std::string text;
  for (int shift = 24; shift >= 0; shift -= 8) {
    text += std::to_string(ip >> shift & 255U);
    if (shift > 0) text += '.';
  }
  return text;
}

int MaskToBits(IPNumber mask) {
  for (int bits = 0; bits <= 32; ++bits) {
    if (mask == BitsToMask(bits)) return bits;
  }
  throw Error(error_number::kBadValue, "mCommon.MaskToBits",
              "Invalid subnet mask: \"" + FormatIP(mask) + "\".");
}

IPNumber BitsToMask(int bits) {
  return bits < 1 || bits > 32 ? 0 : kGreatestIP << (32 - bits);
}

IPRange InitIPRange(std::string_view text) {
  if (const std::size_t slash = text.find('/'); slash != std::string_view::npos) {
    return ReadMaskedRange(text, slash);
  }
  const auto ends = Split(text, '-');
  if (ends.size() > 2) RaiseBadRange(text);
  const IPNumber low = CLngIP(ends.front());
  const IPRange range{low, ends.size() == 2 ? CLngIP(ends.back()) : low};
  if (CompareIP(range.high, range.low) < 0) RaiseBadRange(text);
  return range;
}

int CompareIP(IPNumber a, IPNumber b) {
  return a < b ? -1 : a > b ? 1 : 0;
}

bool IPInRange(IPNumber ip, const IPRange& range) {
  return range.low <= ip && ip <= range.high;
}

bool IPInRangeList(IPNumber ip, const IPRangeList& list) {
  return list.Contains(ip);
}

bool IsOwnAddress(std::string_view address, const std::vector<IPNumber>& own_addresses) {
  const IPNumber ip = CLngIP(address);
  const IPRange loopback = {0x7F000000, 0x7FFFFFFF};
  return IPInRange(ip, loopback) ||
         std::find(own_addresses.begin(), own_addresses.end(), ip) != own_addresses.end();
}

}  // namespace mCommon
}  // namespace trabex
