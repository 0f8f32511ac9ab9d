// What the system says of DNS, of which an environment variable stands for the domains that plain names are searched in.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "unit/resolver/name_lookup_fixture.h"

namespace trabex {
namespace {

using std::chrono::seconds;

// The servers are the test's own: they are asked under the port that they have all.
class SystemsDomainsTest : public NameLookupTest {
 protected:
  SystemsDomainsTest() { Search("example.test"); }
  ~SystemsDomainsTest() override { Search(""); }

  void Search(const std::string& domain) {
    _putenv_s("LOCALDOMAIN", domain.c_str());
    lookup_ = MakeNameLookup(loop_, {.servers = server_.Address(), .hosts_file = folder_ / "hosts"});
  }
};

TEST_F(SystemsDomainsTest, PlainNameIsSearchedInThem) {
  server_.SetAddresses("plain.example.test", {kAddress1});
  EXPECT_EQ(Outcome("plain"), "192.0.2.1");
  EXPECT_EQ(Outcome("plain."), "11001");
  EXPECT_EQ(Outcome("plain.other.test"), "11001");
  EXPECT_EQ(server_.Questions("plain.other.test.example.test"), 0U);
}

TEST_F(SystemsDomainsTest, PlainNamesIPv6AddressIsSearchedInTheSame) {
  server_.SetAddresses("plain.example.test", {kAddress6});
  EXPECT_EQ(Outcome("plain", LookupFamily::kIPv4First), "2001:db8::1f");
}

TEST_F(SystemsDomainsTest, StrangersNameIsNotSearchedInThem) {
  server_.SetNames(kReverse1, {"plain"});
  server_.SetAddresses("plain.example.test", {kAddress1});
  std::string outcome;
  lookup_->FindConfirmedName(kAddress1, [&](const NameAnswer& answer) { outcome = ShownConfirmed(answer); });
  EXPECT_TRUE(RunUntil(loop_, [&] { return !outcome.empty(); }));
  EXPECT_EQ(outcome, "plain");
  EXPECT_EQ(server_.Questions("plain.example.test"), 0U);
}

}  // namespace
}  // namespace trabex
