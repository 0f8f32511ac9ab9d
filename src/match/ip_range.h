// The range notations of the IP list keys, and lists of ranges.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/ip_address.h"

namespace trabex {

// Both ends belong to it and are of one family.
struct IPRange {
  IPAddress low;
  IPAddress high;
  friend bool operator==(const IPRange&, const IPRange&) = default;
};

// Ranges of both families in the order of their entries, with a sorted and merged copy for look-ups; 16 bytes
// for each entry of IPv4, 64 for one of IPv6, since a list may have a million. The empty list matches
// nothing, and no range holds an address of the other family.
class IPRangeList {
 public:
  IPRangeList() = default;
  explicit IPRangeList(const std::vector<IPRange>& ranges);

  // Those of IPv4, then those of IPv6, each in the order of their entries.
  std::vector<IPRange> Ranges() const;
  std::size_t Count() const { return ipv4_.entries.size() + ipv6_.entries.size(); }
  std::size_t IPv4Count() const { return ipv4_.entries.size(); }
  // The range at `index` (from 0, below Count()) of Ranges(), for a pass over a long list.
  IPRange Range(std::size_t index) const;
  // Whether one of the ranges holds `ip`; logarithmic in their number.
  bool Contains(const IPAddress& ip) const;
  // The first range that holds `ip`. In a list of more than kMaxSearched it is one that may be made of several
  // entries, as the search for an entry would take too long.
  std::optional<IPRange> Find(const IPAddress& ip) const;
  static constexpr std::size_t kMaxSearched = 10000;

 private:
  struct IPv6Number {
    std::uint64_t high;
    std::uint64_t low;
    friend auto operator<=>(const IPv6Number&, const IPv6Number&) = default;
  };
  template <class Number>
  struct NumberRange {
    Number low;
    Number high;
  };
  template <class Number>
  struct Family {
    std::vector<NumberRange<Number>> entries;
    std::vector<NumberRange<Number>> merged;  // ascending; they neither overlap nor touch

    void Merge();
    bool Contains(Number number) const;
    const NumberRange<Number>* Find(Number number) const;
  };

  bool ContainsIPv6(const IPAddress& ip) const;
  static std::uint32_t Next(std::uint32_t number) { return number + 1; }
  static IPv6Number Next(const IPv6Number& number);
  static IPv6Number NumberOf(const IPAddress& ip);
  static IPAddress AddressOf(const IPv6Number& number);

  Family<std::uint32_t> ipv4_;
  Family<IPv6Number> ipv6_;
};

namespace mCommon {

// The address that `text` is: an IPv4 address in the form kNumbers or, when it has a colon, an IPv6 address
// as ParseIPAddress reads it, with blanks around allowed. Raises 380 (source "mCommon.CLngIP") "Invalid IP
// address: \"<text>\"." when it is none.
IPAddress CLngIP(std::string_view text);
// 0 to 32. Raises 380 (source "mCommon.MaskToBits") "Invalid subnet mask: \"<a.b.c.d>\"." unless the ones of
// `mask` are its first bits.
int MaskToBits(const IPAddress& mask);
// `bits` ones from the top; 0 and anything above 32 give 0.
IPAddress BitsToMask(int bits);
// Reads "<address>", "<address>/bits", "<low>-<high>" and, of IPv4 only, "a.b.c.d/mask" (no blanks around).
// A range inside ::ffff:0:0/96 is the IPv4 range that it spells; with only one end in there it is bad. Raises
// 380 with source "mCommon.InitIPRange" or that of the function that refused a part.
IPRange InitIPRange(std::string_view text);
// Whether the range is all of IPv4 or all of IPv6.
bool IsWholeFamily(const IPRange& range);
// `range` in the shortest of its notations.
std::string FormatRange(const IPRange& range);
// Appends the same to `out`.
void AppendRange(const IPRange& range, std::string& out);
// -1, 0 or 1.
int CompareIP(const IPAddress& a, const IPAddress& b);
bool IPInRange(const IPAddress& ip, const IPRange& range);
bool IPInRangeList(const IPAddress& ip, const IPRangeList& list);

}  // namespace mCommon
}  // namespace trabex
