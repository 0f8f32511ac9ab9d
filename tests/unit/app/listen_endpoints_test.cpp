// Where the program listens by its settings, how that is shown, and the loop test.
#include "app/listen_endpoints.h"

#include <gtest/gtest.h>

#include "support/expect_error.h"
#include "support/ip_address.h"

namespace trabex {
namespace {

TEST(ListenEndpoints, AreEachAddressWithEachPort) {
  const struct {
    const char* bind_ip;
    std::int32_t tls_port;
    const char* shown;
  } rows[] = {
      {"0.0.0.0", 0, "0.0.0.0:25"},
      {"", 0, "0.0.0.0:25"},
      {"127.0.0.1", 465, "127.0.0.1:25, 127.0.0.1:465 (TLS)"},
      {"::", 0, "[::]:25"},
      {"0.0.0.0, ::", 465, "0.0.0.0:25, [::]:25, 0.0.0.0:465 (TLS), [::]:465 (TLS)"},
      {"::1,127.0.0.1", 0, "[::1]:25, 127.0.0.1:25"},
      // IPv6 in its shortest form, IPv4 as it is written.
      {"2001:DB8:0:0:0::1, 127.000.0.1", 0, "[2001:db8::1]:25, 127.000.0.1:25"},
      {"::ffff:192.0.2.1", 0, "192.0.2.1:25"},
      {"300.1.1.1", 0, "300.1.1.1:25"},
  };
  for (const auto& row : rows) {
    Configuration configuration = DefaultConfiguration();
    configuration.BindIP = row.bind_ip;
    configuration.BindPort = 25;
    configuration.BindPortTLS = row.tls_port;
    EXPECT_EQ(FormatEndpoints(ListenEndpoints(configuration)), row.shown);
  }
}

TEST(ListenEndpoints, TheServerIsShownInTheSameForm) {
  const struct {
    const char* server;
    const char* shown;
  } rows[] = {
      {"192.0.2.1", "192.0.2.1:25"},
      {"mail.example.test", "mail.example.test:25"},
      {"2001:DB8:0::1", "[2001:db8::1]:25"},
      {"::1", "[::1]:25"},
      {"::1%lo", "[::1%lo]:25"},
      {"", ":25"},
  };
  for (const auto& row : rows) {
    Configuration configuration = DefaultConfiguration();
    configuration.ServerIP = row.server;
    configuration.ServerPort = 25;
    EXPECT_EQ(FormatServer(configuration), row.shown);
  }
}

TEST(LoopsBack, WhereAConnectionToTheServerWouldComeBack) {
  const std::vector<IPAddress> own = {kIPv4Loopback, IP("192.0.2.10"), kIPv6Loopback, IP("2001:db8::10"),
                                      IP("fe80::10")};
  const struct {
    const char* bound;
    std::vector<IPAddress> server;
    bool loop;
  } rows[] = {
      {"127.0.0.1", {IP("127.0.0.1")}, true},
      {"127.0.0.1", {IP("127.0.0.2")}, false},
      {"127.0.0.1", {IP("192.0.2.10")}, false},
      {"127.0.0.1", {IP("0.0.0.0")}, true},
      {"127.0.0.1", {IP("::1")}, false},
      {"127.0.0.1", {IP("::")}, false},
      {"0.0.0.0", {IP("127.9.9.9")}, true},
      {"0.0.0.0", {IP("0.0.0.0")}, true},
      {"0.0.0.0", {IP("192.0.2.10")}, true},
      {"0.0.0.0", {IP("192.0.2.11")}, false},
      {"0.0.0.0", {IP("::1")}, false},
      {"0.0.0.0", {IP("::")}, false},
      {"0.0.0.0", {IP("2001:db8::10")}, false},
      {"::1", {IP("::1")}, true},
      {"::1", {IP("::")}, true},
      {"::1", {IP("2001:db8::10")}, false},
      {"::1", {IP("127.0.0.1")}, false},
      {"::1", {IP("0.0.0.0")}, false},
      {"::", {IP("::1")}, true},
      {"::", {IP("::")}, true},
      {"::", {IP("2001:db8::10")}, true},
      {"::", {IP("fe80::10")}, true},
      {"::", {IP("2001:db8::11")}, false},
      {"::", {IP("127.0.0.1")}, false},
      {"::", {IP("0.0.0.0")}, false},
      {"::", {IP("192.0.2.10")}, false},
      // Any of the server's addresses.
      {"::", {IP("2001:db8::11"), IP("2001:db8::10")}, true},
      {"2001:db8::10", {IP("2001:db8::11"), IP("2001:db8::10")}, true},
      {"2001:db8::10", {IP("2001:db8::11")}, false},
  };
  for (const auto& row : rows) {
    const ListenEndpoint bound{row.bound, IP(row.bound), 25, false};
    EXPECT_EQ(LoopsBack(bound, row.server, own), row.loop)
        << row.bound << " " << FormatIPAddress(row.server.front());
  }
}

TEST(LoopsBack, WhatIsNoAddressIsAnError) {
  ExpectError(
      [] {
        LoopsBack({"300.1.1.1", {}, 25, false}, {kIPv4Loopback}, {});
      },
      380, "mCommon.CLngIP", "Invalid IP address: \"300.1.1.1\".");
}

}  // namespace
}  // namespace trabex
