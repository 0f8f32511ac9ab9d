// IPv4 addresses as numbers, the range notations of the IP list keys, and lists of ranges.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace trabex {

// a.b.c.d is a*2^24 + b*2^16 + c*2^8 + d; unsigned, so that addresses from 128.0.0.0 on are the greater ones.
using IPNumber = std::uint32_t;

// Both ends belong to it.
struct IPRange {
  IPNumber low = 0;
  IPNumber high = 0;
  friend bool operator==(const IPRange&, const IPRange&) = default;
};

// Ranges in the order of their entries, with a sorted and merged copy for look-ups. The empty list matches
// nothing.
class IPRangeList {
 public:
  IPRangeList() = default;
  explicit IPRangeList(std::vector<IPRange> ranges);

  const std::vector<IPRange>& Ranges() const { return ranges_; }
  std::size_t Count() const { return ranges_.size(); }
  // Whether one of the ranges holds `ip`; logarithmic in their number.
  bool Contains(IPNumber ip) const;

 private:
  std::vector<IPRange> ranges_;
  std::vector<IPRange> merged_;  // ascending, disjoint, not adjacent
};

namespace mCommon {

// Raises 380 (source "mCommon.CLngIP") "Invalid IP address: \"<text>\"." unless `text` is four parts of 0 to
// 255, each written as ParseInteger reads it.
IPNumber CLngIP(std::string_view text);
// "a.b.c.d".
std::string FormatIP(IPNumber ip);
// 0 to 32. Raises 380 (source "mCommon.MaskToBits") "Invalid subnet mask: \"<a.b.c.d>\"." unless the ones of
// `mask` are its first bits.
int MaskToBits(IPNumber mask);
// `bits` ones from the top; 0 and anything above 32 give 0.
IPNumber BitsToMask(int bits);
// Reads "a.b.c.d", "a.b.c.d/bits", "a.b.c.d/mask" or "a.b.c.d-a.b.c.d" (no blanks around). Raises 380 with
// source "mCommon.InitIPRange" or that of the function that refused a part.
IPRange InitIPRange(std::string_view text);
// -1, 0 or 1.
int CompareIP(IPNumber a, IPNumber b);
bool IPInRange(IPNumber ip, const IPRange& range);
bool IPInRangeList(IPNumber ip, const IPRangeList& list);
// Whether `address` (a dotted quad; raises what CLngIP raises) is in 127.0.0.0/8 or one of `own_addresses`.
bool IsOwnAddress(std::string_view address, const std::vector<IPNumber>& own_addresses);

}  // namespace mCommon
}  // namespace trabex
