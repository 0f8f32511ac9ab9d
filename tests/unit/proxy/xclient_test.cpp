#include "proxy/dialogue/xclient.h"

#include <gtest/gtest.h>

namespace trabex {
namespace {

using enum ClientNames::Answer;

constexpr const char* kAll = "XCLIENT NAME ADDR PROTO HELO REVERSE_NAME PORT LOGIN DESTADDR DESTPORT";

const ProxiedConnection kIPv4{{IPAddress::IPv4(0xC0000207), 51234}, {IPAddress::IPv4(0xCB007105), 25}};

TEST(Xclient, IsOfferedWithTheAddressOnly) {
  EXPECT_TRUE(OffersXclient("XCLIENT ADDR"));
  EXPECT_TRUE(OffersXclient("xclient name addr"));
  EXPECT_TRUE(OffersXclient(kAll));
  EXPECT_FALSE(OffersXclient(""));
  EXPECT_FALSE(OffersXclient("XCLIENT"));
  EXPECT_FALSE(OffersXclient("XCLIENT NAME DESTADDR"));
  EXPECT_FALSE(OffersXclient("ADDR"));
}

TEST(Xclient, TellsWhatIsOffered) {
  const ClientNames names{"mail.client.test", kFound, kFound};
  const struct {
    const char* offered;
    const char* command;
  } rows[] = {
      {kAll,
       "XCLIENT NAME=mail.client.test REVERSE_NAME=mail.client.test PORT=51234 DESTADDR=203.0.113.5 "
       "DESTPORT=25 ADDR=192.0.2.7"},
      {"XCLIENT DESTPORT DESTADDR ADDR PORT REVERSE_NAME NAME",
       "XCLIENT NAME=mail.client.test REVERSE_NAME=mail.client.test PORT=51234 DESTADDR=203.0.113.5 "
       "DESTPORT=25 ADDR=192.0.2.7"},
      {"xclient name addr port", "XCLIENT NAME=mail.client.test PORT=51234 ADDR=192.0.2.7"},
      {"XCLIENT NAME ADDR PROTO HELO", "XCLIENT NAME=mail.client.test ADDR=192.0.2.7"},
      {"XCLIENT ADDR", "XCLIENT ADDR=192.0.2.7"},
      {"XCLIENT NAMES ADDR", "XCLIENT ADDR=192.0.2.7"},
  };
  for (const auto& row : rows) EXPECT_EQ(FormatXclient(row.offered, kIPv4, names), row.command);
}

TEST(Xclient, SaysWhatDnsSaid) {
  const struct {
    ClientNames names;
    const char* command;
  } rows[] = {
      {{"mail.client.test", kFound, kFound}, "XCLIENT NAME=mail.client.test REVERSE_NAME=mail.client.test"},
      {{"mail.client.test", kFound, kNone}, "XCLIENT NAME=[UNAVAILABLE] REVERSE_NAME=mail.client.test"},
      {{"mail.client.test", kFound, kTemporary}, "XCLIENT NAME=[TEMPUNAVAIL] REVERSE_NAME=mail.client.test"},
      {{"", kNone, kNone}, "XCLIENT NAME=[UNAVAILABLE] REVERSE_NAME=[UNAVAILABLE]"},
      {{"", kTemporary, kTemporary}, "XCLIENT NAME=[TEMPUNAVAIL] REVERSE_NAME=[TEMPUNAVAIL]"},
      {{"", kFound, kFound}, "XCLIENT NAME=[UNAVAILABLE] REVERSE_NAME=[UNAVAILABLE]"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(FormatXclient("XCLIENT NAME REVERSE_NAME ADDR", kIPv4, row.names),
              std::string(row.command) + " ADDR=192.0.2.7");
  }
}

// Whatever a name holds, it ends neither the value nor the line.
TEST(Xclient, ValuesAreXtext) {
  std::string name;
  for (int byte = 0; byte < 256; ++byte) name += static_cast<char>(byte);
  std::string text;
  for (int byte = 0; byte < 256; ++byte) {
    const char c = static_cast<char>(byte);
    const bool plain = byte >= '!' && byte <= '~' && c != '+' && c != '=';
    constexpr const char* kDigits = "0123456789ABCDEF";
    if (plain) {
      text += c;
    } else {
      text.append({'+', kDigits[byte / 16], kDigits[byte % 16]});
    }
  }
  // In parts, since the line is bounded.
  for (int begin = 0; begin < 256; begin += 64) {
    const std::string part = name.substr(static_cast<std::size_t>(begin), 64);
    const std::string command = FormatXclient("XCLIENT NAME ADDR", kIPv4, {part, kFound, kFound});
    const std::size_t end = command.find(" ADDR=");
    const std::string value = command.substr(13, end - 13);
    EXPECT_NE(text.find(value), std::string::npos) << value;
    EXPECT_EQ(command.find_first_of("\r\n"), std::string::npos);
  }
}

TEST(Xclient, IPv6AddressesHaveTheirTag) {
  const ProxiedConnection connection{{*ParseIPAddress("2001:db8::7"), 1}, {*ParseIPAddress("::1"), 25}};
  EXPECT_EQ(FormatXclient("XCLIENT ADDR DESTADDR", connection, {}),
            "XCLIENT DESTADDR=IPV6:::1 ADDR=IPV6:2001:db8::7");
}

TEST(Xclient, LineHasAtMost512Bytes) {
  const ProxiedConnection connection{{*ParseIPAddress("1111:1111:1111:1111:1111:1111:1111:1111"), 65535},
                                     {*ParseIPAddress("2222:2222:2222:2222:2222:2222:2222:2222"), 65535}};
  const std::string rest =
      " PORT=65535 DESTADDR=IPV6:2222:2222:2222:2222:2222:2222:2222:2222 DESTPORT=65535 "
      "ADDR=IPV6:1111:1111:1111:1111:1111:1111:1111:1111";
  const auto of = [&](std::size_t size) {
    return FormatXclient(kAll, connection, {std::string(size, 'n'), kFound, kFound});
  };
  bool had_both = false;
  for (std::size_t size = 1; size < 600; ++size) {
    const std::string name(size, 'n');
    const std::string both = "XCLIENT NAME=" + name + " REVERSE_NAME=" + name + rest;
    const std::string one = "XCLIENT NAME=" + name + rest;
    const std::string none = "XCLIENT NAME=[UNAVAILABLE]" + rest;
    EXPECT_EQ(of(size), both.size() <= 510 ? both : one.size() <= 510 ? one : none);
    had_both |= both.size() == 510 || both.size() == 509;
  }
  EXPECT_TRUE(had_both);
}

}  // namespace
}  // namespace trabex
