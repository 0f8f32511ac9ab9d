#include "match/ip_range.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "support/expect_error.h"
#include "support/ip_address.h"

namespace trabex {
namespace {

using mCommon::BitsToMask;
using mCommon::CLngIP;
using mCommon::InitIPRange;
using mCommon::MaskToBits;

TEST(CLngIP, ReadsFourParts) {
  const struct {
    const char* text;
    std::uint32_t ip;
  } rows[] = {
      {"1.2.3.4", 0x01020304},         {"0.0.0.0", 0},
      {"255.255.255.255", 0xFFFFFFFF}, {"128.0.0.0", 0x80000000},
      {"010.0.0.1", 0x0A000001},     // no octal numbers
      {" 1. 2 .3 .4 ", 0x01020304},  // blanks, signs and zeros as in every number
      {"+1.-0.3.004", 0x01000304},
  };
  for (const auto& row : rows) EXPECT_EQ(CLngIP(row.text), IPAddress::IPv4(row.ip)) << row.text;
}

TEST(CLngIP, RefusesEverythingElse) {
  for (const char* text : {"", "1", "1.2.3", "1.2.3.", ".1.2.3", "1..2.3", "1.2.3.4.5", "1.2.3.4.", "...",
                           "1.2.3.256", "1.2.3.-1", "1.2.3.x", "1.2.3.0x4", "1.2.3.4/8", "1.2.3.1e1",
                           "1.2.3. ", "1,2,3,4", "1.2.3.4\r\n", "1.2.3.99999999999999999999",
                           // What has a colon is an IPv6 address.
                           ":", "::g", "1.2.3.4:25", "[::1]", "IPv6:::1", "fe80::1%eth0", "1:2:3:4:5:6:7",
                           "::1.2.3.256", ": :1", "::1\t", "::ffff: 1.2.3.4", "::ffff:1.2.3.04"}) {
    ExpectError([&] { CLngIP(text); }, 380, "mCommon.CLngIP",
                "Invalid IP address: \"" + std::string(text) + "\".");
  }
}

TEST(CLngIP, ReadsIPv6AddressesWithAColon) {
  const struct {
    const char* text;
    const char* ip;
  } rows[] = {
      {"::", "::"},
      {"::1", "::1"},
      {" 2001:DB8:0::0001 ", "2001:db8::1"},
      {"64:ff9b::192.0.2.33", "64:ff9b::c000:221"},
      {"::ffff:192.0.2.1", "192.0.2.1"},
      {"::FFFF:C000:201", "192.0.2.1"},
  };
  for (const auto& row : rows) EXPECT_EQ(FormatIPAddress(CLngIP(row.text)), row.ip) << row.text;
}

TEST(Masks, AreOnesFromTheTop) {
  EXPECT_EQ(BitsToMask(32), IP("255.255.255.255"));
  EXPECT_EQ(BitsToMask(1), IP("128.0.0.0"));
  EXPECT_EQ(BitsToMask(24), IP("255.255.255.0"));
  EXPECT_EQ(BitsToMask(0), IP("0.0.0.0"));
  EXPECT_EQ(BitsToMask(33), IP("0.0.0.0"));
  EXPECT_EQ(BitsToMask(255), IP("0.0.0.0"));
  for (int bits = 0; bits <= 32; ++bits) EXPECT_EQ(MaskToBits(BitsToMask(bits)), bits);
  for (const char* mask : {"255.0.255.0", "0.0.0.1", "127.255.255.255", "255.255.255.253", "0.255.0.0"}) {
    ExpectError([&] { MaskToBits(CLngIP(mask)); }, 380, "mCommon.MaskToBits",
                "Invalid subnet mask: \"" + std::string(mask) + "\".");
  }
}

TEST(InitIPRange, ReadsItsForms) {
  const struct {
    const char* text;
    const char* low;
    const char* high;
  } rows[] = {
      {"10.0.0.0/8", "10.0.0.0", "10.255.255.255"},
      {"0.0.0.0/0", "0.0.0.0", "255.255.255.255"},
      {"255.255.255.255/32", "255.255.255.255", "255.255.255.255"},
      {"128.0.0.0/1", "128.0.0.0", "255.255.255.255"},
      {"192.168.1.0/24", "192.168.1.0", "192.168.1.255"},
      {"192.168.1.0/255.255.255.0", "192.168.1.0", "192.168.1.255"},
      {"0.0.0.0/0.0.0.0", "0.0.0.0", "255.255.255.255"},
      {"10.0.0.0/ 8 ", "10.0.0.0", "10.255.255.255"},
      {"10.0.0.0 /+8", "10.0.0.0", "10.255.255.255"},
      {"1.2.3.4", "1.2.3.4", "1.2.3.4"},
      {"10.0.0.1-10.0.0.1", "10.0.0.1", "10.0.0.1"},
      {"10.0.0.1-10.0.0.5", "10.0.0.1", "10.0.0.5"},
      {"10.0.0.1 - 10.0.0.5", "10.0.0.1", "10.0.0.5"},
      {"127.0.0.0-200.0.0.0", "127.0.0.0", "200.0.0.0"},  // unsigned
      {"0.0.0.0-255.255.255.255", "0.0.0.0", "255.255.255.255"},
      {"::1", "::1", "::1"},
      {"2001:DB8:0:0::1", "2001:db8::1", "2001:db8::1"},
      {"::/0", "::", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
      {"fc00::/7", "fc00::", "fdff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
      {"2001:db8:1:2::/64", "2001:db8:1:2::", "2001:db8:1:2:ffff:ffff:ffff:ffff"},
      {"2001:db8::1/128", "2001:db8::1", "2001:db8::1"},
      {"2001:db8:: / +48 ", "2001:db8::", "2001:db8:0:ffff:ffff:ffff:ffff:ffff"},
      {"2001:db8::9-2001:db8::a", "2001:db8::9", "2001:db8::a"},
      {"2001:db8::9 - 2001:db8::9", "2001:db8::9", "2001:db8::9"},
      {"7fff::-8000::", "7fff::", "8000::"},  // unsigned
      {"::-ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "::", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
      // IPv4 addresses that are written as IPv6 ones.
      {"::ffff:10.0.0.1", "10.0.0.1", "10.0.0.1"},
      {"::ffff:0:0/96", "0.0.0.0", "255.255.255.255"},
      {"::ffff:10.0.0.0/104", "10.0.0.0", "10.255.255.255"},
      {"::ffff:a00:1/128", "10.0.0.1", "10.0.0.1"},
      {"::ffff:10.0.0.1-::ffff:10.0.0.5", "10.0.0.1", "10.0.0.5"},
      {"::ffff:10.0.0.1-10.0.0.5", "10.0.0.1", "10.0.0.5"},
      // Blocks around these, and beside them.
      {"::/79", "::", "::1:ffff:ffff:ffff"},
      {"::/81", "::", "::7fff:ffff:ffff"},
      {"::fffe:0:0/96", "::fffe:0:0", "::fffe:ffff:ffff"},
      {"::1:0:0:0/96", "::1:0:0:0", "::1:0:ffff:ffff"},
      {"::fffe:ffff:ffff-::1:0:0:0", "::fffe:ffff:ffff", "::1:0:0:0"},
  };
  for (const auto& row : rows) {
    const IPRange range = InitIPRange(row.text);
    EXPECT_EQ(range.low, IP(row.low)) << row.text;
    EXPECT_EQ(range.high, IP(row.high)) << row.text;
  }
}

TEST(InitIPRange, NamesWhatIsWrong) {
  const auto range = [](const std::string& text) { return "Invalid IP address range: \"" + text + "\"."; };
  const auto address = [](const std::string& text) { return "Invalid IP address: \"" + text + "\"."; };
  const struct {
    const char* text;
    const char* source;
    std::string description;
  } rows[] = {
      {"", "mCommon.CLngIP", address("")},
      {"x", "mCommon.CLngIP", address("x")},
      {"1.2.3", "mCommon.CLngIP", address("1.2.3")},
      {"1.2.3.256", "mCommon.CLngIP", address("1.2.3.256")},
      // Prefix lengths.
      {"10.0.0.0/33", "mCommon.InitIPRange", range("10.0.0.0/33")},
      {"10.0.0.0/256", "mCommon.InitIPRange", range("10.0.0.0/256")},
      {"10.0.0.0/-1", "mCommon.InitIPRange", range("10.0.0.0/-1")},
      {"10.0.0.0/", "mCommon.InitIPRange", range("10.0.0.0/")},
      {"10.0.0.0/x", "mCommon.InitIPRange", range("10.0.0.0/x")},
      {"10.0.0.0/8x", "mCommon.InitIPRange", range("10.0.0.0/8x")},
      {"10.0.0.0/.5", "mCommon.InitIPRange", range("10.0.0.0/.5")},  // a leading "." makes no mask
      {"10.0.0.0/8/8", "mCommon.InitIPRange", range("10.0.0.0/8/8")},
      {"/", "mCommon.InitIPRange", range("/")},
      // Masks.
      {"10.0.0.0/8.0", "mCommon.CLngIP", address("8.0")},
      {"10.0.0.0/8.", "mCommon.CLngIP", address("8.")},
      {"10.0.0.0/255.0.0.256", "mCommon.CLngIP", address("255.0.0.256")},
      {"192.168.1.0/255.0.255.0", "mCommon.MaskToBits", "Invalid subnet mask: \"255.0.255.0\"."},
      // The part after the "/" is read before the address.
      {"x/33", "mCommon.InitIPRange", range("x/33")},
      {"x/255.0.255.0", "mCommon.MaskToBits", "Invalid subnet mask: \"255.0.255.0\"."},
      {"x/8", "mCommon.CLngIP", address("x")},
      {"/8", "mCommon.CLngIP", address("")},
      {"10.0.0.1-10.0.0.5/8", "mCommon.CLngIP", address("10.0.0.1-10.0.0.5")},
      // Bits outside the mask.
      {"10.0.0.1/8", "mCommon.InitIPRange", "Subnet mask \"8\" is inadmissible for IP address \"10.0.0.1\"."},
      {"10.0.0.1/255.0.0.0", "mCommon.InitIPRange",
       "Subnet mask \"255.0.0.0\" is inadmissible for IP address \"10.0.0.1\"."},
      {"0.0.0.1/0", "mCommon.InitIPRange", "Subnet mask \"0\" is inadmissible for IP address \"0.0.0.1\"."},
      // Two ends.
      {"10.0.0.5-10.0.0.1", "mCommon.InitIPRange", range("10.0.0.5-10.0.0.1")},
      {"200.0.0.0-127.0.0.0", "mCommon.InitIPRange", range("200.0.0.0-127.0.0.0")},
      {"1.1.1.1-2.2.2.2-3.3.3.3", "mCommon.InitIPRange", range("1.1.1.1-2.2.2.2-3.3.3.3")},
      {"x-y-z", "mCommon.InitIPRange", range("x-y-z")},
      {"x-y", "mCommon.CLngIP", address("x")},
      {"1.1.1.1-y", "mCommon.CLngIP", address("y")},
      {"1.1.1.1-", "mCommon.CLngIP", address("")},
      {"-1.1.1.1", "mCommon.CLngIP", address("")},
      // IPv6.
      {"2001:db8::g", "mCommon.CLngIP", address("2001:db8::g")},
      {"[::1]", "mCommon.CLngIP", address("[::1]")},
      {"fe80::1%eth0", "mCommon.CLngIP", address("fe80::1%eth0")},
      {"2001:db8::/129", "mCommon.InitIPRange", range("2001:db8::/129")},
      {"2001:db8::/-1", "mCommon.InitIPRange", range("2001:db8::/-1")},
      {"2001:db8::/", "mCommon.InitIPRange", range("2001:db8::/")},
      {"2001:db8::/x", "mCommon.InitIPRange", range("2001:db8::/x")},
      {"2001:db8::/32/32", "mCommon.InitIPRange", range("2001:db8::/32/32")},
      {"2001:db8::/255.255.0.0", "mCommon.InitIPRange", range("2001:db8::/255.255.0.0")},
      {"2001:db8::/ffff:ffff::", "mCommon.InitIPRange", range("2001:db8::/ffff:ffff::")},
      {"::ffff:10.0.0.0/255.0.0.0", "mCommon.InitIPRange", range("::ffff:10.0.0.0/255.0.0.0")},
      {"10.0.0.0/::ffff:255.0.0.0", "mCommon.CLngIP", address("::ffff:255.0.0.0")},
      {"10.0.0.0/64", "mCommon.InitIPRange", range("10.0.0.0/64")},
      {"2001:db8::g/129", "mCommon.InitIPRange", range("2001:db8::g/129")},
      {"2001:db8::g/32", "mCommon.CLngIP", address("2001:db8::g")},
      {"2001:db8::1/64", "mCommon.InitIPRange", range("2001:db8::1/64")},
      {"::1/0", "mCommon.InitIPRange", range("::1/0")},
      {"2001:db8::2-2001:db8::1", "mCommon.InitIPRange", range("2001:db8::2-2001:db8::1")},
      {"::1-::2-::3", "mCommon.InitIPRange", range("::1-::2-::3")},
      {"::1-", "mCommon.CLngIP", address("")},
      {"::1-::2/64", "mCommon.CLngIP", address("::1-::2")},
      {"10.0.0.1-::1", "mCommon.InitIPRange", range("10.0.0.1-::1")},
      {"::1-10.0.0.1", "mCommon.InitIPRange", range("::1-10.0.0.1")},
      // One end written as IPv6 in the block of IPv4, the other beyond it.
      {"::ffff:10.0.0.0/8", "mCommon.InitIPRange", range("::ffff:10.0.0.0/8")},
      {"::ffff:10.0.0.0/95", "mCommon.InitIPRange", range("::ffff:10.0.0.0/95")},
      {"::ffff:0:0/95", "mCommon.InitIPRange", range("::ffff:0:0/95")},
      {"::ffff:10.0.0.1/104", "mCommon.InitIPRange", range("::ffff:10.0.0.1/104")},
      {"::/80", "mCommon.InitIPRange", range("::/80")},
      {"::fffe:0:0/95", "mCommon.InitIPRange", range("::fffe:0:0/95")},
      {"::-::ffff:ffff:ffff", "mCommon.InitIPRange", range("::-::ffff:ffff:ffff")},
      {"::fffe:ffff:ffff-::ffff:0:0", "mCommon.InitIPRange", range("::fffe:ffff:ffff-::ffff:0:0")},
      {"::ffff:0:0-::1:0:0:0", "mCommon.InitIPRange", range("::ffff:0:0-::1:0:0:0")},
  };
  for (const auto& row : rows) ExpectError([&] { InitIPRange(row.text); }, 380, row.source, row.description);
}

TEST(IsWholeFamily, KnowsEverySpelling) {
  for (const char* text : {"0.0.0.0/0", "0.0.0.0/0.0.0.0", "0.0.0.0-255.255.255.255", "::ffff:0:0/96",
                           "::ffff:0.0.0.0-::ffff:255.255.255.255", "::ffff:0:0-255.255.255.255", "::/0",
                           "0:0::/0", "::-ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}) {
    EXPECT_TRUE(mCommon::IsWholeFamily(InitIPRange(text))) << text;
  }
  for (const char* text : {"0.0.0.0/1", "128.0.0.0/1", "0.0.0.1-255.255.255.255", "0.0.0.0-255.255.255.254",
                           "0.0.0.0", "::", "::/1", "8000::/1", "::1-ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff",
                           "::-ffff:ffff:ffff:ffff:ffff:ffff:ffff:fffe", "::ffff:0:0/97"}) {
    EXPECT_FALSE(mCommon::IsWholeFamily(InitIPRange(text))) << text;
  }
}

TEST(CompareIP, IsUnsigned) {
  EXPECT_EQ(mCommon::CompareIP(CLngIP("127.255.255.255"), CLngIP("128.0.0.0")), -1);
  EXPECT_EQ(mCommon::CompareIP(CLngIP("128.0.0.0"), CLngIP("127.255.255.255")), 1);
  EXPECT_EQ(mCommon::CompareIP(CLngIP("200.1.1.1"), CLngIP("200.1.1.1")), 0);
  EXPECT_TRUE(mCommon::IPInRange(CLngIP("200.1.1.1"), InitIPRange("128.0.0.0-255.255.255.255")));
  EXPECT_TRUE(mCommon::IPInRange(CLngIP("10.0.0.1"), InitIPRange("10.0.0.1-10.0.0.2")));
  EXPECT_TRUE(mCommon::IPInRange(CLngIP("10.0.0.2"), InitIPRange("10.0.0.1-10.0.0.2")));
  EXPECT_FALSE(mCommon::IPInRange(CLngIP("10.0.0.3"), InitIPRange("10.0.0.1-10.0.0.2")));
  EXPECT_FALSE(mCommon::IPInRange(CLngIP("10.0.0.0"), InitIPRange("10.0.0.1-10.0.0.2")));
}

IPRangeList ListOf(const std::vector<const char*>& texts) {
  std::vector<IPRange> ranges;
  for (const char* text : texts) ranges.push_back(InitIPRange(text));
  return IPRangeList(std::move(ranges));
}

TEST(IPRangeList, HoldsItsRanges) {
  EXPECT_FALSE(IPRangeList().Contains(kIPv4Any));
  EXPECT_EQ(IPRangeList().Count(), 0U);
  const IPRangeList list =
      ListOf({"192.168.0.0/16", "10.0.0.0/8", "10.1.0.0/16", "255.255.255.255", "0.0.0.0"});
  EXPECT_EQ(list.Count(), 5U);
  EXPECT_EQ(list.Ranges()[0], InitIPRange("192.168.0.0/16")) << "the order of the entries";
  const struct {
    const char* ip;
    bool held;
  } rows[] = {
      {"0.0.0.0", true},          {"0.0.0.1", false},        {"9.255.255.255", false},
      {"10.0.0.0", true},         {"10.255.255.255", true},  {"11.0.0.0", false},
      {"192.168.0.0", true},      {"192.168.255.255", true}, {"192.169.0.0", false},
      {"255.255.255.254", false}, {"255.255.255.255", true},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(mCommon::IPInRangeList(CLngIP(row.ip), list), row.held) << row.ip;
  }
  EXPECT_TRUE(ListOf({"0.0.0.0/0"}).Contains(CLngIP("200.1.1.1")));
  EXPECT_FALSE(ListOf({"0.0.0.0/0"}).Contains(IP("::1"))) << "all of IPv4 only";
  EXPECT_FALSE(ListOf({"0.0.0.0/0"}).Contains(IPAddress()));
}

TEST(IPRangeList, HoldsRangesOfBothFamilies) {
  const IPRangeList list = ListOf(
      {"fc00::/7", "10.0.0.0/8", "2001:db8::9-2001:db8::10", "::1", "::ffff:192.0.2.0/120", "fd00::/8"});
  const std::vector<IPRange> ranges = list.Ranges();
  const char* const kOrder[] = {"10.0.0.0/8", "192.0.2.0/24", "fc00::/7", "2001:db8::9-2001:db8::10",
                                "::1",        "fd00::/8"};
  ASSERT_EQ(ranges.size(), std::size(kOrder));
  EXPECT_EQ(list.Count(), std::size(kOrder));
  for (std::size_t i = 0; i < ranges.size(); ++i) EXPECT_EQ(ranges[i], InitIPRange(kOrder[i])) << i;
  const struct {
    const char* ip;
    bool held;
  } rows[] = {
      {"::1", true},
      {"::", false},
      {"::2", false},
      {"fbff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", false},
      {"fc00::", true},
      {"fdff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", true},
      {"fe00::", false},
      {"2001:db8::8", false},
      {"2001:db8::9", true},
      {"2001:db8::10", true},
      {"2001:db8::11", false},
      {"10.1.2.3", true},
      {"::ffff:10.1.2.3", true},
      {"::10.1.2.3", false},
      {"::ffff:11.0.0.0", false},
      {"::ffff:c000:2ff", true},
      {"192.0.3.0", false},
      {"0.0.0.1", false},
  };
  for (const auto& row : rows) EXPECT_EQ(list.Contains(IP(row.ip)), row.held) << row.ip;
  EXPECT_FALSE(list.Contains(IPAddress()));

  const IPRangeList all = ListOf({"::/0"});
  for (const char* ip : {"::", "::1", "8000::", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}) {
    EXPECT_TRUE(all.Contains(IP(ip))) << ip;
  }
  for (const char* ip : {"0.0.0.0", "127.0.0.1", "::ffff:10.0.0.1"}) {
    EXPECT_FALSE(all.Contains(IP(ip))) << ip;
  }
  EXPECT_FALSE(all.Contains(IPAddress()));
}

// The IPv6 address whose halves are `high` and `low`.
IPAddress IPv6Of(std::uint64_t high, std::uint64_t low) {
  IPAddress::IPv6Bytes bytes{};
  for (std::size_t i = 0; i < 8; ++i) {
    bytes[7 - i] = static_cast<std::uint8_t>(high >> 8 * i);
    bytes[15 - i] = static_cast<std::uint8_t>(low >> 8 * i);
  }
  return IPAddress::IPv6(bytes);
}

// Addresses next to both ends of their family and, of IPv6, to the middle, where the lower half overflows.
IPAddress IPv4AtEnds(std::uint32_t place) {
  return IPAddress::IPv4(place % 2 == 0 ? place / 2 : ~(place / 2));
}
IPAddress IPv6AtEnds(std::uint32_t place) {
  const std::uint64_t step = place / 4;
  const std::uint64_t low = place % 2 == 0 ? step : ~step;
  if (place % 4 < 2) return IPv6Of(place % 2 == 0 ? 0 : ~std::uint64_t{0}, low);
  return IPv6Of(place % 2 == 0 ? 0x8000000000000000 : 0x7FFFFFFFFFFFFFFF, low);
}

void CheckAgainstScan(IPAddress (*address_at)(std::uint32_t), std::uint32_t places) {
  std::mt19937 random(4);
  for (int round = 0; round < 2000; ++round) {
    // Few different ends, so that ranges overlap, touch, repeat and meet both ends of the number space.
    const auto end = [&] { return address_at(static_cast<std::uint32_t>(random() % places)); };
    std::vector<IPRange> ranges;
    for (auto count = random() % 8; count > 0; --count) {
      const IPAddress low = end();
      const IPAddress high = end();
      // Also ranges that no entry gives: their high end below the low one, holding nothing.
      ranges.push_back(random() % 8 == 0 ? IPRange{low, high}
                                         : IPRange{std::min(low, high), std::max(low, high)});
    }
    const IPRangeList list(ranges);
    EXPECT_EQ(list.Ranges(), ranges);
    const auto check = [&](const IPAddress& ip) {
      const bool scanned = std::any_of(ranges.begin(), ranges.end(),
                                       [ip](const IPRange& range) { return mCommon::IPInRange(ip, range); });
      ASSERT_EQ(list.Contains(ip), scanned) << FormatIPAddress(ip) << " in round " << round;
    };
    for (std::uint32_t place = 0; place < places + 4; ++place) check(address_at(place));
    for (const char* text : {"127.255.255.255", "128.0.0.0", "2001:db8::1", "::1:0:0:0:0"}) check(IP(text));
  }
}

TEST(IPRangeList, IsTheScanForRandomRanges) {
  CheckAgainstScan(IPv4AtEnds, 48);
  CheckAgainstScan(IPv6AtEnds, 64);
}

TEST(IPRangeList, FindsTheFirstRangeThatHoldsAnAddress) {
  const auto range = [](const char* text) { return mCommon::InitIPRange(text); };
  const IPRangeList list(
      {range("192.0.2.0/24"), range("192.0.0.0/16"), range("2001:db8::/32"), range("::1")});
  const std::pair<const char*, const char*> cases[] = {{"192.0.2.7", "192.0.2.0/24"},
                                                       {"192.0.3.7", "192.0.0.0/16"},
                                                       {"2001:db8::7", "2001:db8::/32"},
                                                       {"::1", "::1"}};
  for (const auto& [ip, wanted] : cases) {
    const auto found = list.Find(IP(ip));
    ASSERT_TRUE(found.has_value()) << ip;
    EXPECT_EQ(mCommon::FormatRange(*found), wanted);
  }
  EXPECT_EQ(list.Find(IP("193.0.0.0")), std::nullopt);
  EXPECT_EQ(list.Find(IP("::2")), std::nullopt);
  EXPECT_EQ(list.Find(IPAddress()), std::nullopt);
}

TEST(IPRangeList, FindsTheRangeThatTheEntriesOfALongListMake) {
  std::vector<IPRange> ranges;
  for (std::uint32_t i = 0; i <= IPRangeList::kMaxSearched; ++i) {
    const IPAddress ip = IPAddress::IPv4(0xC0000000 + i);
    ranges.push_back({ip, ip});
  }
  const auto found = IPRangeList(ranges).Find(IP("192.0.0.5"));
  ASSERT_TRUE(found.has_value());
  EXPECT_EQ(mCommon::FormatRange(*found), "192.0.0.0-192.0.39.16");
}

}  // namespace
}  // namespace trabex
