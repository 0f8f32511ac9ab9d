#include "proxy/dialogue/proxy_header.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/text.h"
#include "script/escapes.h"
#include "support/system_address.h"

namespace trabex {
namespace {

using State = ProxyHeader::State;

ProxiedConnection Connection(const char* client, std::uint16_t client_port, const char* called,
                             std::uint16_t called_port) {
  return {{*ParseIPAddress(client), client_port}, {*ParseIPAddress(called), called_port}};
}

// "192.0.2.7:51234 203.0.113.5:25", "local", "incomplete" or "bad".
std::string Told(const ProxyHeader& header) {
  if (header.state == State::kIncomplete) return "incomplete";
  if (header.state == State::kBad) return "bad";
  if (!header.connection) return "local";
  return FormatEndpoint(header.connection->client) + " " + FormatEndpoint(header.connection->called);
}

std::string Told(std::string_view bytes) {
  return Told(ParseProxyHeader(bytes));
}

// --- version 1

const char* const kLines[] = {
    "PROXY TCP4 192.0.2.7 203.0.113.5 51234 25\r\n",
    "PROXY TCP4 0.0.0.0 255.255.255.255 0 65535\r\n",
    "PROXY TCP6 2001:db8::7 2001:db8:0:0:0:0:0:25 1 465\r\n",
    "PROXY TCP6 :: ffff:FFFF:ffff:ffff:ffff:ffff:ffff:ffff 65535 65535\r\n",
    "PROXY TCP6 ::ffff:192.0.2.7 ::ffff:203.0.113.5 51234 25\r\n",
    "PROXY UNKNOWN\r\n",
    "PROXY UNKNOWN ffff::f 1 whatever\n \x01\r\n",
};

TEST(ProxyHeader, LineTellsWhoseConnectionItIs) {
  const struct {
    const char* line;
    const char* told;
  } rows[] = {
      {"PROXY TCP4 192.0.2.7 203.0.113.5 51234 25", "192.0.2.7:51234 203.0.113.5:25"},
      {"PROXY TCP4 0.0.0.0 255.255.255.255 0 65535", "0.0.0.0:0 255.255.255.255:65535"},
      {"PROXY TCP6 2001:db8::7 2001:DB8:0:0:0:0:0:25 1 465", "[2001:db8::7]:1 [2001:db8::25]:465"},
      {"PROXY TCP6 ::ffff:192.0.2.7 ::ffff:c000:0208 51234 25", "192.0.2.7:51234 192.0.2.8:25"},
      {"PROXY UNKNOWN", "local"},
      {"PROXY UNKNOWN ", "local"},
      {"PROXY UNKNOWN 192.0.2.7 203.0.113.5 51234 25", "local"},
      {"PROXY UNKNOWN a\nb\rc", "local"},
      // One part after the other.
      {"PROXY", "bad"},
      {"PROXY ", "bad"},
      {"proxy TCP4 192.0.2.7 203.0.113.5 51234 25", "bad"},
      {"PROXY  TCP4 192.0.2.7 203.0.113.5 51234 25", "bad"},
      {"PROXY\tTCP4 192.0.2.7 203.0.113.5 51234 25", "bad"},
      {"PROXY tcp4 192.0.2.7 203.0.113.5 51234 25", "bad"},
      {"PROXY TCP 192.0.2.7 203.0.113.5 51234 25", "bad"},
      {"PROXY TCP5 192.0.2.7 203.0.113.5 51234 25", "bad"},
      {"PROXY UDP4 192.0.2.7 203.0.113.5 51234 25", "bad"},
      {"PROXY UNKNOWNS", "bad"},
      {"PROXY UNKNOWN\t", "bad"},
      {"PROXY UNKNOWN\rx", "bad"},
      {"PROXY TCP4  192.0.2.7 203.0.113.5 51234 25", "bad"},
      {"PROXY TCP4 192.0.2.7  203.0.113.5 51234 25", "bad"},
      {"PROXY TCP4 192.0.2.7 203.0.113.5  51234 25", "bad"},
      {"PROXY TCP4 192.0.2.7 203.0.113.5 51234  25", "bad"},
      {"PROXY TCP4 192.0.2.7 203.0.113.5 51234 25 ", "bad"},
      {"PROXY TCP4 192.0.2.7 203.0.113.5 51234 25\n", "bad"},
      {"PROXY TCP4 192.0.2.7 203.0.113.5 51234", "bad"},
      {"PROXY TCP4 192.0.2.7 203.0.113.5 51234 ", "bad"},
      {"PROXY TCP4 192.0.2.7 203.0.113.5", "bad"},
      {"PROXY TCP4 192.0.2.7 51234 25", "bad"},
      // The addresses are of the family, and written plainly.
      {"PROXY TCP4 2001:db8::7 2001:db8::25 51234 25", "bad"},
      {"PROXY TCP4 ::ffff:192.0.2.7 203.0.113.5 51234 25", "bad"},
      {"PROXY TCP6 192.0.2.7 203.0.113.5 51234 25", "bad"},
      {"PROXY TCP6 2001:db8::7 203.0.113.5 51234 25", "bad"},
      {"PROXY TCP6 ::ffff:192.0.2.7 2001:db8::25 51234 25", "bad"},
      {"PROXY TCP6 2001:db8::7%1 2001:db8::25 51234 25", "bad"},
      {"PROXY TCP6 [2001:db8::7] 2001:db8::25 51234 25", "bad"},
      {"PROXY TCP4 192.0.2.07 203.0.113.5 51234 25", "bad"},
      {"PROXY TCP4 192.0.2.256 203.0.113.5 51234 25", "bad"},
      {"PROXY TCP4 192.0.2 203.0.113.5 51234 25", "bad"},
      {"PROXY TCP4 192.0.2.7.1 203.0.113.5 51234 25", "bad"},
      {"PROXY TCP4 mail.test 203.0.113.5 51234 25", "bad"},
      // Ports.
      {"PROXY TCP4 192.0.2.7 203.0.113.5 65536 25", "bad"},
      {"PROXY TCP4 192.0.2.7 203.0.113.5 99999999999 25", "bad"},
      {"PROXY TCP4 192.0.2.7 203.0.113.5 051234 25", "bad"},
      {"PROXY TCP4 192.0.2.7 203.0.113.5 00 25", "bad"},
      {"PROXY TCP4 192.0.2.7 203.0.113.5 51234 025", "bad"},
      {"PROXY TCP4 192.0.2.7 203.0.113.5 -1 25", "bad"},
      {"PROXY TCP4 192.0.2.7 203.0.113.5 +1 25", "bad"},
      {"PROXY TCP4 192.0.2.7 203.0.113.5 1. 25", "bad"},
      {"EHLO client.test", "bad"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Told(std::string(row.line).append(kCrLf)), row.told) << script::Escape(row.line);
  }
}

// Whether the line is a header, by other means: the system's reader of addresses. `of_one_family`: also
// whether both addresses are.
bool IsHeader(const std::string& line, bool of_one_family = true) {
  if (line.size() < 2 || line.size() > 107 || line.find("\r\n") != line.size() - 2) return false;
  const std::string text = line.substr(0, line.size() - 2);
  if (text == "PROXY UNKNOWN" || text.starts_with("PROXY UNKNOWN ")) return true;
  const auto words = Split(text, ' ');
  if (words.size() != 6 || words[0] != "PROXY" || (words[1] != "TCP4" && words[1] != "TCP6")) return false;
  const AddressFamily family = words[1] == "TCP4" ? AddressFamily::kIPv4 : AddressFamily::kIPv6;
  const auto client = SystemReadsAddress(family, std::string(words[2]));
  const auto called = SystemReadsAddress(family, std::string(words[3]));
  if (!client || !called) return false;
  const auto is_mapped = [](const IPAddress::IPv6Bytes& address) {
    static constexpr std::array<unsigned char, 12> kMapped{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    return std::equal(kMapped.begin(), kMapped.end(), address.begin());
  };
  if (of_one_family && family == AddressFamily::kIPv6 && is_mapped(*client) != is_mapped(*called))
    return false;
  for (std::size_t i = 4; i < 6; ++i) {
    const std::string port(words[i]);
    if (port.empty() || port.find_first_not_of("0123456789") != std::string::npos) return false;
    if (port.size() > 5 || std::stoi(port) > 65535 || std::to_string(std::stoi(port)) != port) return false;
  }
  return true;
}

// What may follow the beginning of `line` to make a header of it.
std::vector<std::string> RestsFor(std::string_view line) {
  const bool is_ipv6 = line.starts_with("PROXY TCP6");
  std::vector<std::string> rests = {"\n"};
  for (const std::string keyword : {"PROXY TCP4 192.0.2.7 192.0.2.7 1 1\r\n", "PROXY TCP6 :: :: 1 1\r\n"}) {
    for (std::size_t i = 0; i < 11; ++i) rests.push_back(keyword.substr(i));
  }
  for (std::size_t i = 6; i < 14; ++i) rests.push_back(std::string("PROXY UNKNOWN\r\n").substr(i));
  for (const std::string digits : {"", "0"}) {
    for (const char* const behind : {"\r\n", " 1\r\n", " 1 1\r\n"}) rests.push_back(digits + behind);
  }
  const auto add_addresses = [&](const std::string& rest) {
    rests.push_back(rest + " 1 1\r\n");
    if (!is_ipv6) rests.push_back(rest + " 192.0.2.7 1 1\r\n");
    if (is_ipv6) rests.push_back(rest + " 2001:db8::7 1 1\r\n");
    if (is_ipv6) rests.push_back(rest + " ::ffff:192.0.2.7 1 1\r\n");
  };
  for (const char* const rest : {"", "0", ".0", "0.0", ".0.0", "0.0.0", ".0.0.0", "0.0.0.0"}) {
    add_addresses(rest);
  }
  if (!is_ipv6) return rests;
  for (std::string rest : {"", ":", "0:", "::"}) {
    for (int i = 0; i < 15; ++i) {
      add_addresses(rest);
      rest += i % 2 == 0 ? '0' : ':';
    }
  }
  return rests;
}

// Each beginning of each line with another byte behind it is bad exactly when nothing makes a header of it.
TEST(ProxyHeader, LineIsBadAtTheFirstByteThatCannotBeRight) {
  const std::string_view bytes("01259afgPTCU46:. \t\r\n\0\xFF", 22);
  for (const std::string line : kLines) {
    const std::vector<std::string> rests = RestsFor(line);
    const std::size_t unknown = line.find("UNKNOWN ");
    for (std::size_t size = 0; size < line.size(); ++size) {
      for (const char byte : bytes) {
        const std::string begin = line.substr(0, size) + byte;
        if (begin == "\r") continue;  // that of the other version
        // Which family the second address is of is seen at its end.
        const bool both_there = std::count(begin.begin(), begin.end(), ' ') >= 4;
        const auto completes = [&](const std::string& rest) { return IsHeader(begin + rest, both_there); };
        // After UNKNOWN and a blank anything may stand before the end.
        const bool anything = unknown != std::string::npos && size > unknown + 7;
        State expected = State::kBad;
        if (IsHeader(begin)) {
          expected = State::kWhole;
        } else if (anything || std::any_of(rests.begin(), rests.end(), completes)) {
          expected = State::kIncomplete;
        }
        if (ParseProxyHeader(begin).state != expected) ADD_FAILURE() << script::Escape(begin);
      }
    }
  }
}

TEST(ProxyHeader, LineMayComeInAnyPiecesAndEndsBeforeTheClientsBytes) {
  for (const std::string line : kLines) {
    const std::string whole = Told(line);
    EXPECT_NE(whole, "bad");
    for (std::size_t size = 0; size < line.size(); ++size) {
      EXPECT_EQ(Told(line.substr(0, size)), "incomplete") << script::Escape(line.substr(0, size));
    }
    for (const char* const behind : {"", "EHLO client.test\r\n", "\r\n", "\x16\x03\x01"}) {
      const ProxyHeader header = ParseProxyHeader(line + behind);
      EXPECT_EQ(header.size, line.size());
      EXPECT_EQ(Told(header), whole);
    }
  }
}

TEST(ProxyHeader, LineHasAtMost107Bytes) {
  const std::string begin = "PROXY UNKNOWN ";
  for (std::size_t size = begin.size() + 2; size < 200; ++size) {
    const std::string line = begin + std::string(size - begin.size() - 2, 'x') + "\r\n";
    EXPECT_EQ(Told(line), size <= 107 ? "local" : "bad") << size;
    // Nobody waits for the end of a line that is too long.
    EXPECT_EQ(Told(line.substr(0, size - 2)), size - 2 < 106 ? "incomplete" : "bad") << size;
  }
  const std::string long_address(39, '1');
  EXPECT_EQ(Told("PROXY TCP6 " + long_address), "bad");
}

// --- version 2

std::string Binary(unsigned char command, unsigned char carrier, std::string_view rest) {
  std::string header("\r\n\r\n\0\r\nQUIT\n", 12);
  header += static_cast<char>(command);
  header += static_cast<char>(carrier);
  header += static_cast<char>(rest.size() >> 8);
  header += static_cast<char>(rest.size() & 0xFF);
  return header.append(rest);
}

const std::string kIPv4Ends("\xC0\x00\x02\x07\xCB\x00\x71\x05\xC8\x22\x00\x19", 12);
const std::string kIPv6Ends(
    "\x20\x01\x0D\xB8\0\0\0\0\0\0\0\0\0\0\0\x07"
    "\x20\x01\x0D\xB8\0\0\0\0\0\0\0\0\0\0\0\x25\xC8\x22\x01\xD1",
    36);
const std::string kMappedEnds(
    "\0\0\0\0\0\0\0\0\0\0\xFF\xFF\xC0\x00\x02\x07"
    "\0\0\0\0\0\0\0\0\0\0\xFF\xFF\xCB\x00\x71\x05\xC8\x22\x00\x19",
    36);

TEST(ProxyHeader, BinaryHeaderTellsWhoseConnectionItIs) {
  const std::string records("\x03\x00\x04\x01\x02\x03\x04\x04\x00\x00", 10);
  const struct {
    std::string header;
    const char* told;
  } rows[] = {
      {Binary(0x21, 0x11, kIPv4Ends), "192.0.2.7:51234 203.0.113.5:25"},
      {Binary(0x21, 0x21, kIPv6Ends), "[2001:db8::7]:51234 [2001:db8::25]:465"},
      {Binary(0x21, 0x21, kMappedEnds), "192.0.2.7:51234 203.0.113.5:25"},
      {Binary(0x21, 0x21, kMappedEnds.substr(0, 16) + kIPv6Ends.substr(16)), "bad"},
      // Records are not looked at, whatever they say.
      {Binary(0x21, 0x11, kIPv4Ends + records), "192.0.2.7:51234 203.0.113.5:25"},
      {Binary(0x21, 0x11, kIPv4Ends + "\xFF"), "192.0.2.7:51234 203.0.113.5:25"},
      {Binary(0x21, 0x11, kIPv4Ends + std::string(4068, '\xFF')), "192.0.2.7:51234 203.0.113.5:25"},
      {Binary(0x21, 0x11, kIPv4Ends + std::string(4069, '\xFF')), "bad"},
      {Binary(0x21, 0x11, kIPv4Ends.substr(1)), "bad"},
      {Binary(0x21, 0x21, kIPv6Ends.substr(1)), "bad"},
      {Binary(0x21, 0x21, kIPv4Ends), "bad"},
      // The balancer speaks for itself, or cannot say for whom.
      {Binary(0x20, 0x00, ""), "local"},
      {Binary(0x20, 0x11, kIPv4Ends), "local"},
      {Binary(0x20, 0xFF, "\xFF"), "local"},
      {Binary(0x20, 0x00, std::string(4080, 'x')), "local"},
      {Binary(0x20, 0x00, std::string(4081, 'x')), "bad"},
      {Binary(0x21, 0x00, ""), "local"},
      {Binary(0x21, 0x10, kIPv4Ends), "local"},
      {Binary(0x21, 0x01, kIPv4Ends), "local"},
      {Binary(0x21, 0x32, std::string(216, 'x')), "bad"},
      {Binary(0x21, 0x12, kIPv4Ends), "bad"},
      {Binary(0x21, 0x31, std::string(216, 'x')), "bad"},
      {Binary(0x21, 0x41, kIPv4Ends), "bad"},
      {Binary(0x21, 0x40, ""), "bad"},
      {Binary(0x21, 0x03, ""), "bad"},
      {Binary(0x11, 0x11, kIPv4Ends), "bad"},
      {Binary(0x22, 0x11, kIPv4Ends), "bad"},
      {Binary(0x01, 0x11, kIPv4Ends), "bad"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(Told(row.header), row.told) << script::Escape(row.header.substr(0, 60));
}

TEST(ProxyHeader, BinaryHeaderMayComeInAnyPiecesAndEndsBeforeTheClientsBytes) {
  for (const std::string& header : {Binary(0x21, 0x11, kIPv4Ends), Binary(0x21, 0x21, kIPv6Ends + "records"),
                                    Binary(0x20, 0, "skipped"), Binary(0x20, 0, "")}) {
    const std::string whole = Told(header);
    for (std::size_t size = 0; size < header.size(); ++size) {
      EXPECT_EQ(Told(header.substr(0, size)), "incomplete") << size;
    }
    EXPECT_EQ(ParseProxyHeader(header + header).size, header.size());
    EXPECT_EQ(Told(header + "EHLO client.test\r\n"), whole);
  }
}

// Every byte of a header, changed to every other one.
TEST(ProxyHeader, BinaryHeaderIsBadAtTheFirstByteThatCannotBeRight) {
  const std::string header = Binary(0x21, 0x11, kIPv4Ends + "\x04\x00\x01x");
  const auto may_follow = [&](std::size_t at, unsigned char byte) {
    if (at < 12) return static_cast<char>(byte) == header[at];
    if (at == 12) return byte == 0x20 || byte == 0x21;
    if (at == 13) {
      const std::string_view taken("\x00\x01\x02\x10\x20\x30\x11\x21", 8);
      return taken.find(static_cast<char>(byte)) != std::string_view::npos;
    }
    if (at == 14) return byte < 0x10;
    if (at == 15) return byte >= 12;
    return true;
  };
  for (std::size_t at = 0; at < header.size(); ++at) {
    for (int byte = 0; byte < 256; ++byte) {
      const std::string begin = header.substr(0, at) + static_cast<char>(byte);
      // The first byte also tells the versions apart.
      if (at == 0 && byte == 'P') continue;
      const bool whole = at + 1 == header.size() || (at == 15 && byte == 0);
      const State expected = !may_follow(at, static_cast<unsigned char>(byte)) ? State::kBad
                             : whole                                           ? State::kWhole
                                                                               : State::kIncomplete;
      EXPECT_EQ(ParseProxyHeader(begin).state, expected) << at << " " << byte;
    }
  }
}

// --- writing

TEST(ProxyHeader, WhatIsWrittenReadsBackAsTheSame) {
  for (const ProxiedConnection& connection : {Connection("192.0.2.7", 51234, "203.0.113.5", 25),
                                              Connection("2001:db8::7", 65535, "2001:db8::25", 465),
                                              Connection("0.0.0.0", 0, "255.255.255.255", 1)}) {
    const ProxiedTls tls{"TLSv1.3", "TLS_AES_256_GCM_SHA384", true, true, "client.test"};
    for (const std::string& header : {FormatProxyLine(connection), FormatProxyHeader(connection, nullptr),
                                      FormatProxyHeader(connection, &tls)}) {
      const ProxyHeader read = ParseProxyHeader(header);
      EXPECT_EQ(read.state, State::kWhole);
      EXPECT_EQ(read.size, header.size());
      EXPECT_EQ(read.connection, connection);
    }
  }
  EXPECT_EQ(Told(FormatLocalProxyHeader()), "local");
}

TEST(ProxyHeader, WrittenForms) {
  EXPECT_EQ(FormatProxyLine(Connection("192.0.2.7", 51234, "203.0.113.5", 25)),
            "PROXY TCP4 192.0.2.7 203.0.113.5 51234 25\r\n");
  EXPECT_EQ(FormatProxyLine(Connection("2001:db8::7", 1, "2001:db8::25", 465)),
            "PROXY TCP6 2001:db8::7 2001:db8::25 1 465\r\n");
  EXPECT_EQ(FormatProxyHeader(Connection("192.0.2.7", 51234, "203.0.113.5", 25), nullptr),
            Binary(0x21, 0x11, kIPv4Ends));
  EXPECT_EQ(FormatProxyHeader(Connection("2001:db8::7", 51234, "2001:db8::25", 465), nullptr),
            Binary(0x21, 0x21, kIPv6Ends));
  EXPECT_EQ(FormatLocalProxyHeader(), Binary(0x20, 0, ""));
}

TEST(ProxyHeader, TlsOfTheClientFollowsTheAddresses) {
  const ProxiedConnection connection = Connection("192.0.2.7", 51234, "203.0.113.5", 25);
  const auto record_of = [&](const ProxiedTls& tls) {
    return script::Escape(FormatProxyHeader(connection, &tls).substr(28));
  };
  EXPECT_EQ(FormatProxyHeader(connection, nullptr).size(), 28U);
  const auto bytes = [](const std::string& text) { return script::Escape(text); };
  EXPECT_EQ(record_of({"TLSv1.3", "A", false, false, "c"}),
            bytes(std::string("\x20\x00\x13\x01\x00\x00\x00\x01\x21\x00\x07TLSv1.3\x23\x00\x01"
                              "A",
                              22)));
  EXPECT_EQ(record_of({"TLSv1.3", "A", true, false, "c"}),
            bytes(std::string("\x20\x00\x13\x07\x00\x00\x00\x01\x21\x00\x07TLSv1.3\x23\x00\x01"
                              "A",
                              22)));
  EXPECT_EQ(record_of({"TLSv1.3", "A", true, true, "c"}),
            bytes(std::string("\x20\x00\x17\x07\x00\x00\x00\x00\x21\x00\x07TLSv1.3\x23\x00\x01"
                              "A\x22\x00\x01"
                              "c",
                              26)));
}

// A server that reads no more would take the rest for commands.
TEST(ProxyHeader, IsNeverLongerThan232Bytes) {
  for (const ProxiedConnection& connection :
       {Connection("192.0.2.7", 1, "203.0.113.5", 25), Connection("2001:db8::7", 1, "2001:db8::25", 25)}) {
    for (std::size_t size = 0; size < 400; ++size) {
      const std::string text(size, 'x');
      for (const ProxiedTls& tls :
           {ProxiedTls{"TLSv1.3", "TLS_AES_256_GCM_SHA384", true, true, text},
            ProxiedTls{text, "c", true, true, "n"}, ProxiedTls{"TLSv1.3", text, true, true, text}}) {
        const std::string header = FormatProxyHeader(connection, &tls);
        EXPECT_LE(header.size(), 232U);
        EXPECT_EQ(ParseProxyHeader(header).size, header.size());
      }
    }
  }
  const std::string longest_name(64, 'n');
  const ProxiedTls tls{"TLSv1.3", "TLS_ECDHE_ECDSA_WITH_CHACHA20_POLY1305_SHA256", true, true, longest_name};
  EXPECT_NE(FormatProxyHeader(Connection("2001:db8::7", 1, "2001:db8::25", 25), &tls).find(longest_name),
            std::string::npos);
}

}  // namespace
}  // namespace trabex
