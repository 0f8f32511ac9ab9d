// Clients of IPv6. The first client, which connects by itself, is one of IPv4.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "match/ip_range.h"
#include "session/dialogues.h"
#include "session/session_fixture.h"
#include "support/ip_address.h"

namespace trabex {
namespace {

IPRangeList Ranges(const std::vector<std::string>& texts) {
  std::vector<IPRange> ranges;
  for (const std::string& text : texts) ranges.push_back(mCommon::InitIPRange(text));
  return IPRangeList(ranges);
}

// The session of a client on ::1 that the server has greeted.
std::string FromIPv6() {
  return R"(
    S: 220 first
    <- 220 first
    connect ::1
    S: 220 server ready
    <- 220 server ready
)";
}

constexpr const char* kRefused = R"(
    S: 220 first
    <- 220 first
    connect ::1
    <- 554 Connection from ::1 not allowed.
    closed C)";

TEST(IPv6Client, ListsHoldItsAddress) {
  const struct {
    std::vector<std::string> allowed;
    std::vector<std::string> black;
    std::vector<std::string> white;
    bool admitted;
  } rows[] = {
      {{"0.0.0.0/0", "::/0"}, {}, {}, true},    {{"0.0.0.0/0", "::1"}, {}, {}, true},
      {{"0.0.0.0/0"}, {}, {}, false},           {{"0.0.0.0/0", "::/0"}, {"::/127"}, {}, false},
      {{"0.0.0.0/0"}, {"::/0"}, {"::1"}, true}, {{"0.0.0.0/0", "2001:db8::/32"}, {}, {}, false},
  };
  for (const auto& row : rows) {
    PlayBothWays(
        [&row](SessionFixture& fixture) {
          fixture.Settings.IPAllowList = Ranges(row.allowed);
          fixture.Settings.IPBlackList = Ranges(row.black);
          fixture.Settings.IPWhiteList = Ranges(row.white);
        },
        row.admitted ? FromIPv6() : kRefused);
  }
}

void AllowAll(SessionFixture& fixture) {
  fixture.Settings.IPAllowList = Ranges({"0.0.0.0/0", "::/0"});
}

TEST(IPv6Client, ItsLiteralIsCheckedAndHanded) {
  PlayBothWays(
      [](SessionFixture& fixture) {
        AllowAll(fixture);
        fixture.Settings.ValidateHELO = 2;
      },
      FromIPv6() + R"(
    log R: {*} [            ::1] Connection Request.
    C: EHLO [IPv6:::2]
    <- 550 Domain [IPv6:::2] doesn't correspond to IP address ::1.
    C: EHLO [127.0.0.1]
    <- 450 Unable to verify domain name [127.0.0.1] in DNS.
    C: EHLO [::1]
    <- 450 Unable to verify domain name [::1] in DNS.
    C: EHLO [ipv6:0::1]
    -> EHLO [ipv6:0::1]
    S: 250 server
    <- 250 server
)" + MailAndRcpt() +
          R"(
    C: DATA
    -> DATA
    S: 354 go on
    wait 200
    -> Received: from [ipv6:0::1] (Unknown [IPv6:::1]) by proxy.test
    ->       with ESMTP; Sun, 15 Nov 2026 16:54:24 -0000
    <- 354 go on)");
}

TEST(IPv6Client, GreylistingHearsItsAddress) {
  class Recorded final : public GreylistCheck {
   public:
    GreylistVerdict ShouldDefer(std::optional<std::string_view>, const IPAddress& ip, std::string_view,
                                std::string_view) override {
      addresses.push_back(FormatIPAddress(ip));
      return true;
    }
    std::vector<std::string> addresses;
  };
  Recorded greylisting;
  PlayBothWays(
      [&greylisting](SessionFixture& fixture) {
        AllowAll(fixture);
        fixture.Greylisting = &greylisting;
        fixture.Settings.GreyListing.Enabled = true;
      },
      FromIPv6() + Ehlo({"ENHANCEDSTATUSCODES"}) + R"(
    C: MAIL FROM:<a@b.test>
    -> MAIL FROM:<a@b.test>
    S: 250 2.1.0 ok
    <- 250 2.1.0 ok
    C: RCPT TO:<u@local.test>
    <- 451 4.7.1 Greylisted. Delivery delayed.)");
  EXPECT_EQ(greylisting.addresses, (std::vector<std::string>{"::1", "::1"}));
}

}  // namespace
}  // namespace trabex
