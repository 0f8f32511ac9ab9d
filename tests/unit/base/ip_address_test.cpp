#include "base/ip_address.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <type_traits>
#include <unordered_set>
#include <vector>

#include "support/system_address.h"

namespace trabex {
namespace {

static_assert(sizeof(IPAddress) == 17 && std::is_trivially_copyable_v<IPAddress>);

// An address that the test knows to be well written.
IPAddress Address(std::string_view text) {
  return ParseIPAddress(text).value();
}

// What the system reads, written by the system; "" when it reads nothing.
std::string SystemText(const std::string& text) {
  const auto bytes = SystemReadsAddress(AddressFamily::kIPv6, text);
  return bytes ? SystemWritesIPv6(*bytes) : "";
}

TEST(IPv4Text, FourDecimalPartsAreAnAddress) {
  const struct {
    const char* text;
    std::uint32_t number;
  } cases[] = {
      {"0.0.0.0", 0},
      {"127.0.0.1", 0x7F000001},
      {"192.0.2.255", 0xC00002FF},
      {"255.255.255.255", 0xFFFFFFFF},
      {"010.001.000.009", 0x0A010009},  // decimal, whatever the leading zero
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ParseIPv4Address(c.text), IPAddress::IPv4(c.number)) << c.text;
    EXPECT_EQ(ParseIPAddress(c.text), IPAddress::IPv4(c.number)) << c.text;
    EXPECT_EQ(ParseIPv4Address(c.text, IPv4Form::kNumbers), IPAddress::IPv4(c.number)) << c.text;
  }
}

TEST(IPv4Text, EverythingElseIsAName) {
  for (const char* text :
       {"",         "1",         "127.1",      "1.2.3",      "1.2.3.4.5",        "1.2.3.4.",  ".1.2.3.4",
        "1..2.3",   "1.2.3.256", "1.2.3.0001", "0x7f.0.0.1", "0x7f.1",           " 1.2.3.4",  "1.2.3.4 ",
        "1.2.3.-4", "+1.2.3.4",  "1.2.3.4a",   "a.b.c.d",    "1.2.3.4294967296", "localhost", "..."}) {
    EXPECT_EQ(ParseIPv4Address(text), std::nullopt) << text;
    EXPECT_EQ(ParseIPAddress(text), std::nullopt) << text;
  }
  EXPECT_EQ(ParseIPv4Address(std::string_view("1.2.3.4\0", 8)), std::nullopt);
  EXPECT_EQ(ParseIPv4Address("::1"), std::nullopt);
  EXPECT_EQ(ParseIPv4Address("::ffff:1.2.3.4"), std::nullopt);
}

TEST(IPv4Text, InSettingsThePartsAreNumbers) {
  const IPAddress address = IPAddress::IPv4(0x01020304);
  const struct {
    const char* text;
    std::optional<IPAddress> digits;
    std::optional<IPAddress> numbers;
  } cases[] = {
      {"1.2.3.4", address, address},
      {"1.2.3.0004", std::nullopt, address},
      {"+1.2.3.4", std::nullopt, address},
      {" 1. 2 .3 .4 ", std::nullopt, address},
      {"1.2.3.-0", std::nullopt, IPAddress::IPv4(0x01020300)},
      {"1.2.3.-4", std::nullopt, std::nullopt},
      {"1.2.3.4.5", std::nullopt, std::nullopt},  // no fraction of the last part
      {"1.2.3.4.", std::nullopt, std::nullopt},
      {"1.2.3", std::nullopt, std::nullopt},
      {"1.2..4", std::nullopt, std::nullopt},
      {"1.2.3. ", std::nullopt, std::nullopt},
      {"1.2.3.99999999999999999999", std::nullopt, std::nullopt},
      {"::1", std::nullopt, std::nullopt},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ParseIPv4Address(c.text), c.digits) << c.text;
    EXPECT_EQ(ParseIPv4Address(c.text, IPv4Form::kNumbers), c.numbers) << c.text;
  }
}

TEST(IPv4Text, IsWrittenWithoutPadding) {
  for (const char* text : {"0.0.0.0", "127.0.0.1", "1.20.100.209", "255.255.255.255", "10.9.99.110"}) {
    EXPECT_EQ(FormatIPAddress(Address(text)), text);
  }
  for (std::uint32_t part = 0; part < 256; ++part) {
    EXPECT_EQ(FormatIPAddress(IPAddress::IPv4(part)), "0.0.0." + std::to_string(part));
  }
  EXPECT_EQ(FormatIPAddress(IPAddress()), "");
}

TEST(IPv4Text, PartsAreWrittenFromTheFirst) {
  EXPECT_EQ(FormatIPv4Parts(Address("192.0.2.7"), 3), "192.0.2");
  EXPECT_EQ(FormatIPv4Parts(Address("192.0.2.7"), 4), "192.0.2.7");
  EXPECT_EQ(FormatIPv4Parts(Address("192.0.2.7"), 1), "192");
  EXPECT_EQ(FormatIPv4Parts(Address("192.0.2.7"), 0), "");
  EXPECT_EQ(FormatIPv4Parts(Address("2001:db8::1"), 3), "");
  for (int part = 0; part < 256; ++part) {
    const std::string text = std::to_string(part);
    EXPECT_EQ(FormatIPv4Parts(IPAddress::IPv4(static_cast<std::uint32_t>(part)), 4), "0.0.0." + text);
    EXPECT_EQ(FormatIPv4Parts(IPAddress::IPv4(static_cast<std::uint32_t>(part) << 24), 1), text);
  }
  EXPECT_EQ(FormatIPv4Parts(IPAddress(), 3), "");
}

TEST(IPv6Text, IsReadAndWrittenInItsCanonicalForm) {
  const struct {
    const char* text;
    const char* written;
  } cases[] = {
      {"::", "::"},
      {"::1", "::1"},
      {"1::", "1::"},
      {"2001:db8::1", "2001:db8::1"},
      {"2001:DB8:0:0:0:0:0:1", "2001:db8::1"},
      {"2001:0db8::0001", "2001:db8::1"},
      {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},     // of equal runs the first
      {"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},           // the longest run
      {"2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},  // one zero stays
      {"2001:db8::1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},   // also where "::" stood for it
      {"::2:3:4:5:6:7:8", "0:2:3:4:5:6:7:8"},
      {"1:2:3:4:5:6:7::", "1:2:3:4:5:6:7:0"},
      {"1:2:3:4:5:6:0:0", "1:2:3:4:5:6::"},
      {"0:0:3:4:5:6:7:8", "::3:4:5:6:7:8"},
      {"fe80::abcd:ef01", "fe80::abcd:ef01"},
      {"64:ff9b::192.0.2.33", "64:ff9b::c000:221"},
      {"1:2:3:4:5:6:7.8.9.10", "1:2:3:4:5:6:708:90a"},
      {"::1.2.3.4", "::102:304"},
      {"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
  };
  for (const auto& c : cases) {
    const auto address = ParseIPAddress(c.text);
    ASSERT_TRUE(address) << c.text;
    EXPECT_TRUE(address->IsIPv6()) << c.text;
    EXPECT_EQ(FormatIPAddress(*address), c.written) << c.text;
    EXPECT_EQ(ParseIPAddress(c.written), address) << c.text;
  }
}

TEST(IPv6Text, NothingElseIsAnAddress) {
  for (const char* text : {":",
                           ":::",
                           "1:",
                           ":1",
                           "1:2:3:4:5:6:7",
                           "1::2::3",
                           "1:2:3:4:5:6:7:8:9",
                           "::12345",
                           "::g",
                           "::1 ",
                           " ::1",
                           "::1%eth0",
                           "[::1]",
                           "IPv6:::1",
                           "1:2:3:4:5:6:7:8::",
                           "1:2:3:4::5:6:7:8",
                           "::1.2.3",
                           "::1.2.3.256",
                           "::1.2.3.04",
                           "::1.2.3.4:5",
                           "::1.2.3.4:",
                           "1.2.3.4::",
                           "1:2:3:4:5:6:7:1.2.3.4",
                           "::-1",
                           "::+1",
                           "::0x1"}) {
    EXPECT_EQ(ParseIPAddress(text), std::nullopt) << text;
    EXPECT_EQ(SystemText(text), "") << text;
  }
}

TEST(IPv6Text, AnIPv4AddressInsideIsThatAddress) {
  for (const char* text : {"::ffff:192.0.2.1", "::FFFF:c000:0201", "0:0:0:0:0:ffff:192.0.2.1"}) {
    EXPECT_EQ(ParseIPAddress(text), IPAddress::IPv4(0xC0000201)) << text;
  }
  IPAddress::IPv6Bytes bytes{};
  bytes[10] = bytes[11] = 0xFF;
  bytes[15] = 1;
  EXPECT_EQ(IPAddress::IPv6(bytes), IPAddress::IPv4(1));
  bytes[0] = 1;
  EXPECT_TRUE(IPAddress::IPv6(bytes).IsIPv6());
}

// Texts made of what addresses are made of, so that many of them are one.
TEST(IPv6Text, IsReadAsTheSystemDoes) {
  std::mt19937 random(1);
  const std::vector<std::string> pieces = {":",   ":", ":",  "::",   "0",    "0",     "1", "ab", "ffff",
                                           "00f", ".", "10", "255.", "1.2.", "3.4.5", "g", " ",  "0:0"};
  int read = 0;
  for (int round = 0; round < 100000; ++round) {
    std::string text;
    if (round % 2 == 0) {
      for (auto count = random() % 18; count > 0; --count) text += pieces[random() % pieces.size()];
    } else {
      for (int group = 0; group < 8; ++group) {
        text += random() % 3 == 0 ? pieces[4 + random() % 6] : std::to_string(random() % 3);
        if (group < 7) text += random() % 12 == 0 ? "::" : ":";
      }
    }
    if (text.find(':') == std::string::npos) text += "::";
    const std::string system = SystemText(text);
    const auto address = ParseIPAddress(text);
    ASSERT_EQ(address.has_value(), !system.empty()) << text;
    if (!address) continue;
    ++read;
    // The system writes an IPv4 address into those that begin with 96 zeros, and into mapped ones.
    const std::string written = (address->IsIPv4() ? "::ffff:" : "") + FormatIPAddress(*address);
    if (system.find('.') == std::string::npos || address->IsIPv4()) {
      ASSERT_EQ(written, system) << text;
    } else {
      ASSERT_EQ(SystemText(written), system) << text;
    }
  }
  EXPECT_GT(read, 10000);
}

TEST(IPv6Text, IsWrittenAsTheSystemDoes) {
  std::mt19937 random(2);
  for (int round = 0; round < 100000; ++round) {
    IPAddress::IPv6Bytes bytes{};
    for (std::size_t group = 0; group < 16; group += 2) {
      if (random() % 2 == 0) continue;
      bytes[group] = static_cast<std::uint8_t>(random() % 3 == 0 ? random() % 256 : 0);
      bytes[group + 1] = static_cast<std::uint8_t>(random() % 256);
    }
    // Every eighth is an IPv4 address.
    if (round % 8 == 0) {
      std::fill_n(bytes.begin(), 10, std::uint8_t{0});
      bytes[10] = bytes[11] = 0xFF;
    }
    const IPAddress address = IPAddress::IPv6(bytes);
    ASSERT_EQ(address.IsIPv4(), round % 8 == 0);
    const std::string written = FormatIPAddress(address);
    ASSERT_EQ(ParseIPAddress(written), address) << written;
    const std::string system = SystemWritesIPv6(bytes);
    // That has an IPv4 address also in the IPv4-compatible form, which RFC 5952 does not ask for.
    const bool compatible = system.find('.') != std::string_view::npos && !address.IsIPv4();
    // One that begins with zeros is no IPv4 address to every system.
    const bool zeros =
        address.IsIPv4() && bytes[12] == 0 && bytes[13] == 0 && system.find('.') == std::string_view::npos;
    if (!compatible && !zeros) {
      ASSERT_EQ((address.IsIPv4() ? "::ffff:" : "") + written, system);
    }
    ASSERT_EQ(ParseIPAddress(system), address) << system;
  }
}

TEST(IPAddressValue, IsNoneUntilItIsGivenOne) {
  const IPAddress none;
  EXPECT_TRUE(none.IsNone());
  EXPECT_FALSE(none.IsIPv4() || none.IsIPv6() || none.IsUnspecified() || none.IsLoopback());
  EXPECT_EQ(none.BitCount(), 0);
  EXPECT_TRUE(none.Bytes().empty());
  EXPECT_NE(none, kIPv4Any);
  EXPECT_NE(none, Address("::"));
}

TEST(IPAddressValue, HasItsBytesInNetworkOrder) {
  const IPAddress ipv4 = Address("192.0.2.1");
  EXPECT_EQ(std::vector(ipv4.Bytes().begin(), ipv4.Bytes().end()), (std::vector<std::uint8_t>{192, 0, 2, 1}));
  EXPECT_EQ(ipv4.Number(), 0xC0000201U);
  EXPECT_EQ(ipv4.BitCount(), 32);
  const IPAddress ipv6 = Address("102:304:506:708:90a:b0c:d0e:f10");
  ASSERT_EQ(ipv6.Bytes().size(), 16U);
  for (std::size_t i = 0; i < 16; ++i) EXPECT_EQ(ipv6.Bytes()[i], i + 1);
  EXPECT_EQ(ipv6.BitCount(), 128);
  EXPECT_EQ(ipv6.Number(), 0U);
}

TEST(IPAddressValue, SortsByFamilyAndNumber) {
  const std::vector<IPAddress> sorted = {IPAddress(),
                                         Address("0.0.0.0"),
                                         Address("9.255.255.255"),
                                         Address("10.0.0.0"),
                                         Address("127.255.255.255"),
                                         Address("128.0.0.0"),
                                         Address("255.255.255.255"),
                                         Address("::"),
                                         Address("::1"),
                                         Address("::1:0"),
                                         Address("7fff::"),
                                         Address("8000::"),
                                         Address("ffff::")};
  for (std::size_t i = 0; i < sorted.size(); ++i) {
    for (std::size_t j = 0; j < sorted.size(); ++j) {
      EXPECT_EQ(sorted[i] < sorted[j], i < j) << i << " " << j;
      EXPECT_EQ(sorted[i] == sorted[j], i == j) << i << " " << j;
    }
  }
  EXPECT_EQ(std::unordered_set<IPAddress>(sorted.begin(), sorted.end()).size(), sorted.size());
}

TEST(IPAddressValue, KnowsItsKind) {
  for (const char* text : {"0.0.0.0", "::"}) EXPECT_TRUE(Address(text).IsUnspecified()) << text;
  for (const char* text : {"0.0.0.1", "127.0.0.1", "::1", "1::"}) {
    EXPECT_FALSE(Address(text).IsUnspecified()) << text;
  }
  for (const char* text : {"127.0.0.0", "127.0.0.1", "127.255.255.255", "::1", "::ffff:127.0.0.1"}) {
    EXPECT_TRUE(Address(text).IsLoopback()) << text;
  }
  for (const char* text : {"126.255.255.255", "128.0.0.0", "0.0.0.1", "0.0.0.0", "::", "::2", "7f00::"}) {
    EXPECT_FALSE(Address(text).IsLoopback()) << text;
  }
  EXPECT_EQ(kIPv4Any, Address("0.0.0.0"));
  EXPECT_EQ(kIPv4Loopback, Address("127.0.0.1"));
  EXPECT_EQ(kIPv4Broadcast, Address("255.255.255.255"));
}

TEST(IPAddressValue, LiesInABlock) {
  const struct {
    const char* address;
    int bits;
    const char* first;
    const char* last;
  } cases[] = {
      {"192.0.2.171", 24, "192.0.2.0", "192.0.2.255"},
      {"192.0.2.171", 28, "192.0.2.160", "192.0.2.175"},
      {"192.0.2.171", 9, "192.0.0.0", "192.127.255.255"},
      {"192.0.2.171", 0, "0.0.0.0", "255.255.255.255"},
      {"192.0.2.171", -1, "0.0.0.0", "255.255.255.255"},
      {"192.0.2.171", 32, "192.0.2.171", "192.0.2.171"},
      {"192.0.2.171", 200, "192.0.2.171", "192.0.2.171"},
      {"2001:db8:1:2:3:4:5:6", 64, "2001:db8:1:2::", "2001:db8:1:2:ffff:ffff:ffff:ffff"},
      {"2001:db8:1:2:3:4:5:6", 47, "2001:db8::", "2001:db8:1:ffff:ffff:ffff:ffff:ffff"},
      {"2001:db8:1:2:3:4:5:6", 128, "2001:db8:1:2:3:4:5:6", "2001:db8:1:2:3:4:5:6"},
      {"2001:db8::", 0, "::", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
  };
  for (const auto& c : cases) {
    const IPAddress address = Address(c.address);
    EXPECT_EQ(address.Prefix(c.bits), Address(c.first)) << c.address << "/" << c.bits;
    EXPECT_EQ(address.PrefixEnd(c.bits), Address(c.last)) << c.address << "/" << c.bits;
  }
  EXPECT_EQ(IPAddress().Prefix(8), IPAddress());
  EXPECT_EQ(IPAddress().PrefixEnd(8), IPAddress());
  EXPECT_LT(Address("::1"), Address("::1").PrefixEnd(80)) << "no IPv4 address, which would sort before";
}

TEST(IPAddressValue, CountsTheBitsInCommon) {
  const struct {
    const char* a;
    const char* b;
    int bits;
  } cases[] = {
      {"192.0.2.1", "192.0.2.1", 32},
      {"192.0.2.1", "192.0.2.0", 31},
      {"0.0.0.0", "128.0.0.0", 0},
      {"10.0.0.0", "10.255.0.0", 8},
      {"::", "::1", 127},
      {"::", "::", 128},
      {"2001:db8::", "2001:db9::", 31},
      {"0.0.0.0", "::", 0},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Address(c.a).CommonBits(Address(c.b)), c.bits) << c.a << " " << c.b;
    EXPECT_EQ(Address(c.b).CommonBits(Address(c.a)), c.bits) << c.a << " " << c.b;
  }
}

TEST(AddressLiteral, NamesTheNewerFamily) {
  EXPECT_EQ(FormatAddressLiteral(Address("192.0.2.1")), "[192.0.2.1]");
  EXPECT_EQ(FormatAddressLiteral(Address("2001:db8::1")), "[IPv6:2001:db8::1]");
  EXPECT_EQ(FormatAddressLiteral(Address("::ffff:192.0.2.1")), "[192.0.2.1]");
  EXPECT_EQ(FormatAddressLiteral(IPAddress()), "[]");
}

TEST(AddressLiteral, IsReadByItsTag) {
  const struct {
    const char* text;
    const char* address;  // "" when it is no literal
  } cases[] = {
      {"[192.0.2.1]", "192.0.2.1"},
      {"[192.0.2.001]", "192.0.2.001"},
      {"[IPv6:2001:db8::1]", "2001:db8::1"},
      {"[ipv6:2001:DB8::1]", "2001:DB8::1"},
      {"[IPV6:::]", "::"},
      {"[IPv6:::ffff:192.0.2.1]", "::ffff:192.0.2.1"},
      {"[IPv6:64:ff9b::192.0.2.33]", "64:ff9b::192.0.2.33"},
      // The wrong family for the tag.
      {"[IPv6:192.0.2.1]", ""},
      {"[2001:db8::1]", ""},
      {"[::ffff:192.0.2.1]", ""},
      {"[IPv4:192.0.2.1]", ""},
      {"[IPv6:IPv6:::1]", ""},
      {"[IPv6 :::1]", ""},
      {"[IPv6: ::1]", ""},
      {"[IPv6:]", ""},
      {"[IPv6:::1%1]", ""},
      {"[IPv6]", ""},
      {"[]", ""},
      {"[", ""},
      {"]", ""},
      {"", ""},
      {"192.0.2.1", ""},
      {"IPv6:::1", ""},
      {"[[IPv6:::1]]", ""},
      {"[IPv6:::1] ", ""},
      {"[IPv6:::1", ""},
      {"[1.2.3]", ""},
      {"[host.test]", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(AddressInLiteral(c.text), c.address) << c.text;
  for (const char* text : {"192.0.2.1", "2001:db8::1", "::"}) {
    const std::string literal = FormatAddressLiteral(Address(text));
    EXPECT_EQ(AddressInLiteral(literal), text);
  }
}

}  // namespace
}  // namespace trabex
