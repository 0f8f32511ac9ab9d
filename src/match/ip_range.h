// The range notations of the IP list keys, which are those of IPv4, and lists of ranges.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "base/ip_address.h"

namespace trabex {

// Both ends belong to it.
struct IPRange {
  IPAddress low;
  IPAddress high;
  friend bool operator==(const IPRange&, const IPRange&) = default;
};

// Ranges of IPv4 addresses in the order of their entries, with a sorted and merged copy for look-ups; 16
// bytes for each entry, since a list may have a million. The empty list matches nothing.
class IPRangeList {
 public:
  IPRangeList() = default;
  // Both ends of each range are IPv4 addresses.
  explicit IPRangeList(const std::vector<IPRange>& ranges);

  std::vector<IPRange> Ranges() const;
  std::size_t Count() const { return ranges_.size(); }
  // Whether one of the ranges holds `ip`; logarithmic in their number.
  bool Contains(const IPAddress& ip) const;

 private:
  struct Numbers {
    std::uint32_t low;
    std::uint32_t high;
  };
  // The same addresses in ascending ranges that neither overlap nor touch.
  static std::vector<Numbers> Merged(std::vector<Numbers> ranges);

  std::vector<Numbers> ranges_;
  std::vector<Numbers> merged_;
};

namespace mCommon {

// The IPv4 address that `text` is in the form kNumbers. Raises 380 (source "mCommon.CLngIP") "Invalid IP
// address: \"<text>\"." when it is none.
IPAddress CLngIP(std::string_view text);
// 0 to 32. Raises 380 (source "mCommon.MaskToBits") "Invalid subnet mask: \"<a.b.c.d>\"." unless the ones of
// `mask` are its first bits.
int MaskToBits(const IPAddress& mask);
// `bits` ones from the top; 0 and anything above 32 give 0.
IPAddress BitsToMask(int bits);
// Reads "a.b.c.d", "a.b.c.d/bits", "a.b.c.d/mask" or "a.b.c.d-a.b.c.d" (no blanks around). Raises 380 with
// source "mCommon.InitIPRange" or that of the function that refused a part.
IPRange InitIPRange(std::string_view text);
// -1, 0 or 1.
int CompareIP(const IPAddress& a, const IPAddress& b);
bool IPInRange(const IPAddress& ip, const IPRange& range);
bool IPInRangeList(const IPAddress& ip, const IPRangeList& list);

}  // namespace mCommon
}  // namespace trabex
