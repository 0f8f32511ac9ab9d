// HELO and EHLO: black list, and the check of the domain in DNS.
#include <gtest/gtest.h>

#include <string>

#include "support/ip_address.h"
#include "unit/proxy/dialogue.h"

namespace trabex {
namespace {

constexpr IPAddress kOther[] = {IPAddress::IPv4(1)};

TEST(Helo, IsRemembered) {
  const struct {
    const char* line;
    const char* domain;
    bool ehlo;
  } rows[] = {
      {"HELO client.test", "client.test", false},
      {"EHLO client.test", "client.test", true},
      {"ehlo   Client.Test  more", "Client.Test", true},
      {"EHLO", "", true},
      {"HELO ", "", false},
      {"EHLO [192.0.2.7]", "[192.0.2.7]", true},
      {"EHLO [IPv6:2001:DB8::1] more", "[IPv6:2001:DB8::1]", true},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    d.state.requested.EhloUsed = !row.ehlo;
    EXPECT_TRUE(d.Says(row.line).starts_with("->"));
    EXPECT_EQ(d.state.requested.HeloDomain, row.domain) << row.line;
    EXPECT_EQ(d.state.requested.EhloUsed, row.ehlo) << row.line;
    EXPECT_FALSE(d.Greeted()) << "only the server's reply makes it so";
  }
}

TEST(Helo, WhichCheckIsMadeForWhom) {
  constexpr const char* kForwarded = "-> EHLO black.test";
  constexpr const char* kBlack = "<- 550 Disallowed domain name: black.test.";
  constexpr const char* kLookUp = "asks name black.test";
  struct {
    const char* remote;
    const char* local;
  } rows[16];
  for (int bits = 0; bits < 16; ++bits) {
    rows[bits].local = (bits & 4) != 0 ? kBlack : (bits & 1) != 0 ? kLookUp : kForwarded;
    rows[bits].remote = (bits & 8) != 0 ? kBlack : (bits & 2) != 0 ? kLookUp : kForwarded;
  }
  // Some of them as they are written in a manual.
  EXPECT_EQ(rows[0].remote, kForwarded);
  EXPECT_EQ(rows[2].remote, kLookUp);
  EXPECT_EQ(rows[2].local, kForwarded);
  EXPECT_EQ(rows[9].local, kLookUp);
  EXPECT_EQ(rows[9].remote, kBlack);
  for (int bits = 0; bits < 16; ++bits) {
    for (const bool local : {false, true}) {
      TestDialogue d;
      d.configuration.ValidateHELO = bits;
      d.configuration.HELOBlackList = ListOf({"black.test"});
      d.facts.local = local;
      EXPECT_EQ(d.Says("EHLO black.test"), local ? rows[bits].local : rows[bits].remote) << bits;
    }
  }
}

TEST(Helo, BlackListedDomains) {
  const struct {
    const char* line;
    const char* outcome;
  } rows[] = {
      {"HELO black.test", "<- 550 Disallowed domain name: black.test."},
      {"EHLO BLACK.test", "<- 550 Disallowed domain name: BLACK.test."},
      {"EHLO x.spam.test", "<- 550 Disallowed domain name: x.spam.test."},
      {"EHLO spam.test", "-> EHLO spam.test"},
      {"EHLO white.test black.test", "-> EHLO white.test black.test"},
      {"EHLO", "<- 501 Domain name not specified."},
      {"HELO  ", "<- 501 Domain name not specified."},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    d.configuration.ValidateHELO = 8;
    d.configuration.HELOBlackList = ListOf({"black.test", "*.spam.test", "[]"});
    EXPECT_EQ(d.Says(row.line), row.outcome) << row.line;
  }
  // An empty domain is refused by the list only where the list names it.
  TestDialogue d;
  d.configuration.ValidateHELO = 8;
  d.configuration.HELOBlackList = ListOf({"black.test"});
  EXPECT_EQ(d.Says("EHLO"), "-> EHLO");
}

TEST(Helo, TheNameOfTheClientNeedsNoLookUp) {
  const struct {
    const char* host;
    const char* domain;
    bool accepted;
  } rows[] = {
      {"mail.client.test", "mail.client.test", true},
      {"mail.client.test", "MAIL.Client.TEST", true},
      {"mail.client.test", "client.test", true},
      {"mail.client.test", "a.mail.client.test", true},
      {"mail.client.test", "xmail.client.test", false},
      {"mail.client.test", "ient.test", false},
      {"mail.client.test", "other.test", false},
      {"mail.client.test", "mail.client.test.", false},
      {"mail.client.test", ".mail.client.test", true},
      // A client without a name has the name "Unknown".
      {"", "Unknown", true},
      {"", "unknown", true},
      {"", "x.unknown", true},
      {"", "mail.client.test", false},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    d.configuration.ValidateHELO = 2;
    d.facts.host = row.host;
    EXPECT_EQ(d.Says(std::string("EHLO ") + row.domain),
              row.accepted ? std::string("-> EHLO ") + row.domain : std::string("asks name ") + row.domain);
  }
}

TEST(Helo, WhatIsLookedUp) {
  const struct {
    const char* line;
    const char* outcome;
  } rows[] = {
      {"EHLO other.test", "asks name other.test"},
      {"EHLO other.test more", "asks name other.test"},
      {"EHLO [192.0.2.9]", "asks name 192.0.2.9"},
      {"EHLO 192.0.2.9", "asks name 192.0.2.9"},
      {"EHLO [IPv6:2001:db8::1]", "asks name 2001:db8::1"},
      {"HELO [ipv6:2001:DB8::1]", "asks name 2001:DB8::1"},
      {"EHLO [IPv6:::ffff:192.0.2.9]", "asks name ::ffff:192.0.2.9"},
      // No address literals.
      {"EHLO [other.test]", "asks name [other.test]"},
      {"EHLO [2001:db8::1]", "asks name [2001:db8::1]"},
      {"EHLO [IPv6:192.0.2.9]", "asks name [IPv6:192.0.2.9]"},
      {"EHLO [IPv6:2001:db8::g]", "asks name [IPv6:2001:db8::g]"},
      {"EHLO [IPv4:192.0.2.9]", "asks name [IPv4:192.0.2.9]"},
      {"EHLO []", "asks name []"},
      {"EHLO [", "asks name ["},
      {"EHLO", "<- 501 Domain name not specified."},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    d.configuration.ValidateHELO = 2;
    EXPECT_EQ(d.Says(row.line), row.outcome) << row.line;
  }
}

TEST(Helo, TheAnswerDecides) {
  const IPAddress kClient = IP("192.0.2.7");
  const struct {
    std::vector<IPAddress> addresses;  // none: the name has none
    const char* outcome;
  } rows[] = {
      {{kClient}, "-> ehlo other.test"},
      {{IP("192.0.2.6"), IP("192.0.2.8"), kClient, IP("127.0.0.1")}, "-> ehlo other.test"},
      {{IP("192.0.2.6")}, "<- 550 Domain other.test doesn't correspond to IP address 192.0.2.7."},
      {{}, "<- 450 Unable to verify domain name other.test in DNS."},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    d.configuration.ValidateHELO = 2;
    d.Run(R"(
      S: 220 ready
      <- 220 ready
      C: ehlo\tother.test
      asks name other.test)");
    EXPECT_EQ(d.state.phase, Phase::kAsking);
    d.Answer({!row.addresses.empty(), row.addresses});
    d.Run(row.outcome);
    EXPECT_FALSE(d.Greeted());
  }
}

TEST(Helo, TheAnswerDecidesForAnIPv6Client) {
  const struct {
    const char* address;
    const char* outcome;
  } rows[] = {
      {"2001:db8::7", "-> EHLO [IPv6:2001:DB8:0::7]"},
      {"2001:db8::8", "<- 550 Domain [IPv6:2001:DB8:0::7] doesn't correspond to IP address 2001:db8::7."},
      {"192.0.2.7", "<- 550 Domain [IPv6:2001:DB8:0::7] doesn't correspond to IP address 2001:db8::7."},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    d.configuration.ValidateHELO = 2;
    d.facts.ip = IP("2001:db8::7");
    d.Run(R"(
      S: 220 ready
      <- 220 ready
      C: EHLO [IPv6:2001:DB8:0::7]
      asks name 2001:DB8:0::7)");
    const IPAddress addresses[] = {IP(row.address)};
    d.Answer({true, addresses});
    d.Run(row.outcome);
  }
}

TEST(Helo, ARefusedOneChangesNothingForTheServer) {
  TestDialogue d;
  d.GreetMailAndRcpt();
  d.configuration.ValidateHELO = 8;
  d.configuration.HELOBlackList = ListOf({"black.test"});
  d.Run(R"(
    C: EHLO black.test
    <- 550 Disallowed domain name: black.test.
    C: DATA
    -> DATA)");
  EXPECT_TRUE(d.Greeted());
  EXPECT_TRUE(d.TransactionOpen());
}

TEST(Helo, TheBlackListComesBeforeDns) {
  TestDialogue d;
  d.configuration.ValidateHELO = 15;
  d.configuration.HELOBlackList = ListOf({"mail.client.test"});
  EXPECT_EQ(d.Says("EHLO mail.client.test"), "<- 550 Disallowed domain name: mail.client.test.");
}

TEST(Helo, RepliesAreChangedByTheirKeys) {
  TestDialogue d;
  d.configuration.ValidateHELO = 2 + 8;
  d.configuration.HELOBlackList = ListOf({"black.test"});
  d.configuration.ResponseChanges.Add(WholeReply("HELO.BlackList", "1 {%helodomain%}"));
  d.configuration.ResponseChanges.Add(WholeReply("HELO.NoDomain", "2 {%helodomain%}"));
  d.configuration.ResponseChanges.Add(WholeReply("HELO.DNSError", "3 {%helodomain%}"));
  d.configuration.ResponseChanges.Add(WholeReply("HELO.Invalid", "4 {%helodomain%} {%remotehostip%}"));
  d.Run(R"(
    C: EHLO black.test
    <- 1 black.test
    C: EHLO
    <- 2\x20
    C: EHLO a.test
    asks name a.test)");
  d.Answer({});
  d.Run(R"(
    <- 3 a.test
    C: EHLO b.test
    asks name b.test)");
  d.Answer({true, kOther});
  d.Run("<- 4 b.test 192.0.2.7");
}

}  // namespace
}  // namespace trabex
