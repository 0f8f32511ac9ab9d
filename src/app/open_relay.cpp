#include "app/open_relay.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>

#include "base/ip_address.h"

namespace trabex {

namespace {

// `ip` is not the last address of its family.
IPAddress AddressAfter(const IPAddress& ip) {
  if (ip.IsIPv4()) return IPAddress::IPv4(ip.Number() + 1);
  IPAddress::IPv6Bytes bytes{};
  std::copy(ip.Bytes().begin(), ip.Bytes().end(), bytes.begin());
  for (auto byte = bytes.rbegin(); byte != bytes.rend() && ++*byte == 0; ++byte) {
  }
  return IPAddress::IPv6(bytes);
}

// All texts of letters and dots of up to this size that are domains with a dot, and a long one.
std::vector<std::string> SampleDomains() {
  constexpr std::size_t kMaxSize = 8;
  std::vector<std::string> domains = {"aaaaaaaaaaaaaaaaaaaa.aaaaaaaaaaaaaaa.aaaaaaa"};
  for (std::size_t size = 3; size <= kMaxSize; ++size) {
    for (unsigned dots = 1; dots < 1U << size; ++dots) {
      std::string domain;
      for (std::size_t at = 0; at < size; ++at) domain += (dots >> at & 1) != 0 ? '.' : 'a';
      const bool is_domain =
          !domain.starts_with('.') && !domain.ends_with('.') && domain.find("..") == std::string::npos;
      if (is_domain) domains.push_back(std::move(domain));
    }
  }
  return domains;
}

bool MatchesEveryDomain(const std::string& pattern) {
  constexpr std::string_view kNot = "[]";
  if (pattern.starts_with(kNot) && pattern.size() > kNot.size()) {
    // What matches no text with a dot leaves all of these to its opposite.
    return pattern.find_first_of("*?.[", kNot.size()) == std::string::npos;
  }
  // Anything else stands for some letter.
  if (pattern.find_first_not_of("*?.") != std::string::npos) return false;
  static const std::vector<std::string> domains = SampleDomains();
  return std::all_of(domains.begin(), domains.end(),
                     [&](const std::string& domain) { return mText::LikeText(domain, pattern); });
}

}  // namespace

bool MatchesEveryDomain(const ListEntry& entry) {
  return !entry.patterns.empty() &&
         std::all_of(entry.patterns.begin(), entry.patterns.end(),
                     [](const std::string& pattern) { return MatchesEveryDomain(pattern); });
}

bool TogetherHoldAll(std::vector<IPRange> ranges, bool is_ipv6) {
  std::erase_if(ranges, [&](const IPRange& range) { return range.low.IsIPv6() != is_ipv6; });
  if (ranges.empty()) return false;
  std::sort(ranges.begin(), ranges.end(), [](const IPRange& a, const IPRange& b) { return a.low < b.low; });
  IPRange joined = ranges.front();
  const IPAddress last = joined.low.PrefixEnd(0);
  for (const IPRange& range : ranges) {
    if (joined.high == last) break;
    if (range.low > AddressAfter(joined.high)) return false;
    joined.high = std::max(joined.high, range.high);
  }
  return mCommon::IsWholeFamily(joined);
}

}  // namespace trabex
