#include "proxy/dialogue/server_approach.h"

#include <gtest/gtest.h>

#include "unit/proxy/dialogue.h"

namespace trabex {
namespace {

const ProxiedConnection kConnection{{IPAddress::IPv4(0xC0000207), 51234}, {IPAddress::IPv4(0xCB007105), 25}};

Configuration With(std::int32_t send_client_ip, std::int32_t server) {
  Configuration configuration = TestConfiguration();
  configuration.SendClientIP = send_client_ip;
  configuration.TLS.Server = server;
  return configuration;
}

TEST(ServerApproach, NothingComesFirstUnlessASettingAsksForIt) {
  EXPECT_FALSE(NeedsApproach(TestConfiguration()));
  for (const std::int32_t value : {1, 2, 3}) {
    EXPECT_TRUE(NeedsApproach(With(value, 0)));
    EXPECT_TRUE(NeedsApproach(With(0, value)));
  }
}

TEST(ServerApproach, HeaderFollowsTheSettingAndTheOrigin) {
  const ProxiedTls tls{"TLSv1.3", "TLS_AES_256_GCM_SHA384", false, false, ""};
  const struct {
    std::int32_t setting;
    ClientOrigin origin;
    std::string header;
    const char* logged;
  } rows[] = {
      {0, {kConnection, false, nullptr}, "", ""},
      {1,
       {kConnection, false, nullptr},
       FormatProxyLine(kConnection),
       "PROXY TCP4 192.0.2.7 203.0.113.5 51234 25"},
      {1,
       {kConnection, true, nullptr},
       FormatProxyLine(kConnection),
       "PROXY TCP4 192.0.2.7 203.0.113.5 51234 25"},
      {2,
       {kConnection, false, nullptr},
       FormatProxyHeader(kConnection, nullptr),
       "PROXY v2 TCP4 192.0.2.7 203.0.113.5 51234 25"},
      {2,
       {kConnection, false, &tls},
       FormatProxyHeader(kConnection, &tls),
       "PROXY v2 TCP4 192.0.2.7 203.0.113.5 51234 25"},
      {2, {kConnection, true, nullptr}, FormatLocalProxyHeader(), "PROXY v2 LOCAL"},
      {3, {kConnection, false, nullptr}, "", ""},
  };
  for (const auto& row : rows) {
    const ServerApproach approach = PlanApproach(With(row.setting, 0), row.origin);
    EXPECT_EQ(approach.header, row.header);
    EXPECT_EQ(approach.logged_header, row.logged);
  }
}

TEST(ServerApproach, PrefaceFollowsTheSettings) {
  const struct {
    std::int32_t send_client_ip;
    std::int32_t server;
    // Letters: t TLS at once, s STARTTLS, r it is required, p the header is proved, x XCLIENT.
    const char* plan;
  } rows[] = {
      {0, 0, ""},  {1, 0, "p"},  {2, 0, ""},   {3, 0, "x"},   {0, 1, "s"},  {1, 1, "sp"},
      {2, 1, "s"}, {3, 1, "sx"}, {0, 2, "sr"}, {1, 2, "srp"}, {2, 2, "sr"}, {3, 2, "srx"},
      {0, 3, "t"}, {1, 3, "tp"}, {2, 3, "t"},  {3, 3, "tx"},
  };
  for (const auto& row : rows) {
    const ServerPrefacePlan plan =
        PlanApproach(With(row.send_client_ip, row.server), {kConnection, false, nullptr}).preface;
    std::string letters;
    if (plan.tls_at_once) letters += 't';
    if (plan.starttls) letters += 's';
    if (plan.requires_tls) letters += 'r';
    if (plan.proves_header) letters += 'p';
    if (plan.xclient) letters += 'x';
    EXPECT_EQ(letters, row.plan) << row.send_client_ip << " " << row.server;
    EXPECT_EQ(plan.local_host_name, "proxy.test");
  }
}

}  // namespace
}  // namespace trabex
