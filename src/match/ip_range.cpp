#include "match/ip_range.h"

#include <algorithm>
#include <cassert>
#include <iterator>
#include <optional>
#include <span>
#include <string>

#include "base/error.h"
#include "base/numbers.h"
#include "base/text.h"

namespace trabex {

namespace {

constexpr int kIPv4Bits = 32;
constexpr int kIPv6Bits = 128;
// In front of an IPv4 address that is written as an IPv6 one.
constexpr int kMappedBits = kIPv6Bits - kIPv4Bits;

[[noreturn]] void RaiseBadRange(std::string_view text) {
  throw Error(error_number::kBadValue, "mCommon.InitIPRange",
              "Invalid IP address range: \"" + std::string(text) + "\".");
}

IPAddress AddressOrRaise(const std::optional<IPAddress>& address, std::string_view text) {
  if (!address) {
    throw Error(error_number::kBadValue, "mCommon.CLngIP",
                "Invalid IP address: \"" + std::string(text) + "\".");
  }
  return *address;
}

IPAddress ReadIPv4(std::string_view text) {
  return AddressOrRaise(ParseIPv4Address(text, IPv4Form::kNumbers), text);
}

bool IsIPv6Text(std::string_view text) {
  return text.find(':') != std::string_view::npos;
}

int ReadBits(std::string_view text, std::string_view written, int max_bits) {
  const auto bits = ParseInteger(written);
  if (!bits || *bits < 0 || *bits > max_bits) RaiseBadRange(text);
  return *bits;
}

// The length of the prefix that `written`, the text after the "/" of `text`, means.
int ReadPrefixLength(std::string_view text, std::string_view written) {
  if (written.find('.', 1) != std::string_view::npos) return mCommon::MaskToBits(ReadIPv4(written));
  return ReadBits(text, written, kIPv4Bits);
}

IPAddress::IPv6Bytes IPv6BytesOf(const IPAddress& ip) {
  IPAddress::IPv6Bytes bytes{};
  std::copy(ip.Bytes().begin(), ip.Bytes().end(), bytes.begin());
  return bytes;
}

// `address` and `written` are the texts on both sides of the "/" of `text`.
IPRange ReadIPv6Block(std::string_view text, std::string_view address, std::string_view written) {
  int bits = ReadBits(text, written, kIPv6Bits);
  const IPAddress ip = mCommon::CLngIP(address);
  if (ip.IsIPv4()) bits -= kMappedBits;
  if (bits < 0 || ip != ip.Prefix(bits)) RaiseBadRange(text);
  const IPRange range{ip, ip.PrefixEnd(bits)};
  // The last address of ::/80 is ::ffff:255.255.255.255, but not its first.
  if (ip.IsIPv6() && IPAddress::IPv6(IPv6BytesOf(range.high)).IsIPv4()) RaiseBadRange(text);
  return range;
}

// `slash` is the position of the first "/".
IPRange ReadMaskedRange(std::string_view text, std::size_t slash) {
  const std::string_view address = text.substr(0, slash);
  const std::string_view written_mask = text.substr(slash + 1);
  if (written_mask.find('/') != std::string_view::npos) RaiseBadRange(text);
  if (IsIPv6Text(address)) return ReadIPv6Block(text, address, written_mask);
  const int bits = ReadPrefixLength(text, written_mask);
  const IPAddress ip = ReadIPv4(address);
  if (ip != ip.Prefix(bits)) {
    throw Error(error_number::kBadValue, "mCommon.InitIPRange",
                "Subnet mask \"" + std::string(written_mask) + "\" is inadmissible for IP address \"" +
                    std::string(address) + "\".");
  }
  return {ip, ip.PrefixEnd(bits)};
}

}  // namespace

IPRangeList::IPRangeList(const std::vector<IPRange>& ranges) {
  const auto of_ipv4 = static_cast<std::size_t>(
      std::count_if(ranges.begin(), ranges.end(), [](const IPRange& range) { return range.low.IsIPv4(); }));
  ipv4_.entries.reserve(of_ipv4);
  ipv6_.entries.reserve(ranges.size() - of_ipv4);
  for (const IPRange& range : ranges) {
    assert(range.low.IsIPv4() ? range.high.IsIPv4() : range.low.IsIPv6() && range.high.IsIPv6());
    if (range.low.IsIPv4()) {
      ipv4_.entries.push_back({range.low.Number(), range.high.Number()});
    } else {
      ipv6_.entries.push_back({NumberOf(range.low), NumberOf(range.high)});
    }
  }
  ipv4_.Merge();
  ipv6_.Merge();
}

template <class Number>
void IPRangeList::Family<Number>::Merge() {
  auto ranges = entries;
  std::erase_if(ranges, [](const auto& range) { return range.low > range.high; });
  std::sort(ranges.begin(), ranges.end(), [](const auto& a, const auto& b) { return a.low < b.low; });
  for (const auto& range : ranges) {
    // The number after the last one there is would be 0.
    if (!merged.empty() && (Next(merged.back().high) == Number{} || range.low <= Next(merged.back().high))) {
      merged.back().high = std::max(merged.back().high, range.high);
    } else {
      merged.push_back(range);
    }
  }
  merged.shrink_to_fit();
}

template <class Number>
inline bool IPRangeList::Family<Number>::Contains(Number number) const {
  const auto behind = std::upper_bound(merged.begin(), merged.end(), number,
                                       [](Number value, const auto& range) { return value < range.low; });
  return behind != merged.begin() && number <= std::prev(behind)->high;
}

template <class Number>
const IPRangeList::NumberRange<Number>* IPRangeList::Family<Number>::Find(Number number) const {
  if (!Contains(number)) return nullptr;
  const auto holds = [&](const auto& range) { return range.low <= number && number <= range.high; };
  if (entries.size() <= kMaxSearched) return &*std::find_if(entries.begin(), entries.end(), holds);
  return &*std::prev(std::upper_bound(merged.begin(), merged.end(), number,
                                      [](Number value, const auto& range) { return value < range.low; }));
}

std::optional<IPRange> IPRangeList::Find(const IPAddress& ip) const {
  if (ip.IsIPv4()) {
    const auto* const range = ipv4_.Find(ip.Number());
    if (range != nullptr) return IPRange{IPAddress::IPv4(range->low), IPAddress::IPv4(range->high)};
  } else if (ip.IsIPv6()) {
    const auto* const range = ipv6_.Find(NumberOf(ip));
    if (range != nullptr) return IPRange{AddressOf(range->low), AddressOf(range->high)};
  }
  return std::nullopt;
}

IPRangeList::IPv6Number IPRangeList::Next(const IPv6Number& number) {
  const std::uint64_t low = number.low + 1;
  return {number.high + (low == 0 ? 1 : 0), low};
}

IPRangeList::IPv6Number IPRangeList::NumberOf(const IPAddress& ip) {
  IPv6Number number{};
  const std::span<const std::uint8_t> bytes = ip.Bytes();
  for (std::size_t i = 0; i < 8; ++i) {
    number.high = number.high << 8 | bytes[i];
    number.low = number.low << 8 | bytes[i + 8];
  }
  return number;
}

IPAddress IPRangeList::AddressOf(const IPv6Number& number) {
  IPAddress::IPv6Bytes bytes;
  for (std::size_t i = 0; i < 8; ++i) {
    bytes[i] = static_cast<std::uint8_t>(number.high >> (56 - 8 * i));
    bytes[i + 8] = static_cast<std::uint8_t>(number.low >> (56 - 8 * i));
  }
  return IPAddress::IPv6(bytes);
}

std::vector<IPRange> IPRangeList::Ranges() const {
  std::vector<IPRange> ranges;
  ranges.reserve(Count());
  for (std::size_t index = 0; index < Count(); ++index) ranges.push_back(Range(index));
  return ranges;
}

IPRange IPRangeList::Range(std::size_t index) const {
  if (index < ipv4_.entries.size()) {
    const auto& range = ipv4_.entries[index];
    return {IPAddress::IPv4(range.low), IPAddress::IPv4(range.high)};
  }
  const auto& range = ipv6_.entries[index - ipv4_.entries.size()];
  return {AddressOf(range.low), AddressOf(range.high)};
}

bool IPRangeList::Contains(const IPAddress& ip) const {
  if (!ip.IsIPv4()) [[unlikely]] {
    return ContainsIPv6(ip);
  }
  return ipv4_.Contains(ip.Number());
}

// Not inline, since the registers that it needs would be saved for every IPv4 address too.
[[gnu::noinline]] bool IPRangeList::ContainsIPv6(const IPAddress& ip) const {
  return ip.IsIPv6() && ipv6_.Contains(NumberOf(ip));
}

namespace mCommon {

IPAddress CLngIP(std::string_view text) {
  return IsIPv6Text(text) ? AddressOrRaise(ParseIPAddress(Trim(text)), text) : ReadIPv4(text);
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
  if (range.low.IsIPv4() != range.high.IsIPv4() || CompareIP(range.high, range.low) < 0) RaiseBadRange(text);
  return range;
}

bool IsWholeFamily(const IPRange& range) {
  return range.low == range.low.Prefix(0) && range.high == range.low.PrefixEnd(0);
}

std::string FormatRange(const IPRange& range) {
  std::string text;
  AppendRange(range, text);
  return text;
}

void AppendRange(const IPRange& range, std::string& out) {
  out.append(FormatIPAddress(range.low));
  if (range.low == range.high) return;
  const int bits = range.low.CommonBits(range.high);
  const bool is_block = range.low == range.low.Prefix(bits) && range.high == range.low.PrefixEnd(bits);
  if (is_block) {
    out.append("/").append(std::to_string(bits));
  } else {
    out.append("-").append(FormatIPAddress(range.high));
  }
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
