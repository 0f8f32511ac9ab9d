// Look-ups against a DNS server of the test's own. Where time matters the loop's clock is the test's; c-ares
// keeps its own time for asking again.
#include "resolver/name_lookup.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <set>

#include "base/error.h"
#include "dns_server.h"
#include "resolver/host_settings.h"
#include "support/fake_clock.h"
#include "support/fake_name_lookup.h"
#include "support/loop_runner.h"
#include "support/open_file_limit.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr IPAddress kAddress1 = IPAddress::IPv4(0xC0000201);  // 192.0.2.1
constexpr IPAddress kAddress2 = IPAddress::IPv4(0xC0000202);
constexpr const char* kReverse1 = "1.2.0.192.in-addr.arpa";
constexpr IPAddress kAddress6 =
    IPAddress::IPv6({0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x1F});  // 2001:db8::1f
constexpr const char* kReverse6 = "f.1.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.8.b.d.0.1.0.0.2.ip6.arpa";

// An outcome in one word: "192.0.2.1 192.0.2.2", "host.test" or "11001".
std::string Shown(const AddressAnswer& answer) {
  if (answer.error != 0) return std::to_string(answer.error);
  std::string shown;
  for (const IPAddress& address : answer.addresses) {
    if (!shown.empty()) shown += ' ';
    shown += FormatIPAddress(address);
  }
  return shown;
}
std::string Shown(const NameAnswer& answer) {
  return answer.error != 0 ? std::to_string(answer.error) : answer.name;
}

std::string ShownConfirmed(const NameAnswer& answer) {
  return Shown(answer) + (answer.confirmed ? " confirmed" : "");
}

std::size_t OpenDescriptors() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
  return count;
}

class NameLookupTest : public testing::Test {
 protected:
  explicit NameLookupTest(Milliseconds limit = seconds(5)) {
    WriteFile(folder_ / "hosts", "127.0.0.1 loopback\n192.0.2.77 Known.test known\n192.0.2.78 known.test\n");
    lookup_ = MakeNameLookup(loop_,
                             {.servers = server_.Address(), .hosts_file = folder_ / "hosts", .limit = limit});
  }

  LookupId Ask(std::string_view name, std::string& outcome) {
    return Ask(name, LookupFamily::kIPv4, outcome);
  }
  LookupId Ask(std::string_view name, LookupFamily family, std::string& outcome) {
    return lookup_->FindAddresses(name, family,
                                  [&](const AddressAnswer& answer) { outcome += Shown(answer); });
  }
  LookupId Ask(const IPAddress& address, std::string& outcome) {
    return lookup_->FindName(address, [&](const NameAnswer& answer) { outcome += Shown(answer); });
  }
  // Asks and runs the loop until the answer is there.
  template <class What>
  std::string Outcome(What what) {
    std::string outcome;
    Ask(what, outcome);
    EXPECT_EQ(outcome, "") << "answered from inside the call";
    EXPECT_TRUE(RunUntil(loop_, [&] { return !outcome.empty(); }));
    return outcome;
  }
  std::string Outcome(std::string_view name, LookupFamily family) {
    std::string outcome;
    Ask(name, family, outcome);
    EXPECT_EQ(outcome, "") << "answered from inside the call";
    EXPECT_TRUE(RunUntil(loop_, [&] { return !outcome.empty(); }));
    return outcome;
  }
  // Runs the loop until `name` has been asked for `times`.
  bool Asked(std::string_view name, std::size_t times = 1) {
    return RunUntil(loop_, [&] { return server_.Questions(name) >= times; });
  }

  const TempFolder folder_;
  FakeClock clock_;
  EventLoop loop_{clock_};
  DnsServer server_{loop_};
  std::unique_ptr<NameLookup> lookup_;
};

TEST_F(NameLookupTest, AddressesOfAName) {
  server_.SetAddresses("one.test", {kAddress1});
  server_.SetAddresses("several.test", {kAddress2, kAddress1, IP("255.255.255.255"), kIPv4Any});
  EXPECT_EQ(Outcome("one.test"), "192.0.2.1");
  EXPECT_EQ(Outcome("ONE.Test."), "192.0.2.1");
  EXPECT_EQ(Outcome("several.test"), "192.0.2.2 192.0.2.1 255.255.255.255 0.0.0.0");
}

TEST_F(NameLookupTest, NameOfAnAddress) {
  server_.SetNames(kReverse1, {"Mail.Example.test"});
  server_.SetNames("255.255.255.255.in-addr.arpa", {"first.test", "second.test"});
  server_.SetNames("3.2.0.192.in-addr.arpa", {""});
  EXPECT_EQ(Outcome(kAddress1), "Mail.Example.test");
  EXPECT_EQ(Outcome(IP("255.255.255.255")), "first.test");
  EXPECT_EQ(Outcome(kAddress2), "11001");
  EXPECT_EQ(Outcome(IP("192.0.2.3")), "11004") << "the root is no name";
}

// An address of IPv6 is asked for only where one is wanted, and together with IPv4 only for a name that
// exists and has no other.
TEST_F(NameLookupTest, AddressesOfAFamily) {
  server_.SetAddresses("four.test", {kAddress1});
  server_.SetAddresses("six.test", {kAddress6, kIPv6Loopback});
  server_.SetAddresses("both.test", {kAddress6, kAddress1});
  server_.SetAddresses("none.test", {});
  server_.SetFailure("format.test", dns::Rcode::kFormat);
  server_.Set("mapped.test", [](const DnsQuestion& question) {
    const std::string mapped = std::string(10, '\0') + "\xFF\xFF" + dns::AddressData(kAddress1);
    std::vector<std::string> records;
    if (question.type == dns::kAaaa) records = {dns::Record(dns::kOwnName, dns::kAaaa, mapped)};
    return std::vector{dns::Answer(question, records)};
  });
  server_.Set("alias.test", [](const DnsQuestion& question) {
    std::vector records = {dns::Record(dns::kOwnName, dns::kCname, dns::EncodedName("real.test"))};
    if (question.type == dns::kAaaa) {
      records.push_back(dns::Record(dns::EncodedName("real.test"), dns::kAaaa, dns::AddressData(kAddress6)));
    }
    return std::vector{dns::Answer(question, records)};
  });
  using Types = std::vector<int>;
  const Types a{dns::kA};
  const Types aaaa{dns::kAaaa};
  const Types both{dns::kA, dns::kAaaa};
  const struct {
    const char* name;
    LookupFamily family;
    const char* outcome;
    Types asked;
  } rows[] = {
      {"four.test", LookupFamily::kIPv4, "192.0.2.1", a},
      {"four.test", LookupFamily::kIPv6, "11004", aaaa},
      {"four.test", LookupFamily::kIPv4First, "192.0.2.1", a},
      {"six.test", LookupFamily::kIPv4, "11004", a},
      {"six.test", LookupFamily::kIPv6, "2001:db8::1f ::1", aaaa},
      {"six.test", LookupFamily::kIPv4First, "2001:db8::1f ::1", both},
      {"SIX.test.", LookupFamily::kIPv4First, "2001:db8::1f ::1", both},
      {"both.test", LookupFamily::kIPv4, "192.0.2.1", a},
      {"both.test", LookupFamily::kIPv6, "2001:db8::1f", aaaa},
      {"both.test", LookupFamily::kIPv4First, "192.0.2.1", a},
      {"none.test", LookupFamily::kIPv4First, "11004", both},
      {"missing.test", LookupFamily::kIPv4First, "11001", a},
      {"format.test", LookupFamily::kIPv4First, "11003", a},
      {"mapped.test", LookupFamily::kIPv6, "11004", aaaa},
      {"alias.test", LookupFamily::kIPv4First, "2001:db8::1f", both},
      // Addresses, and names that are known here.
      {"2001:DB8::1F", LookupFamily::kIPv6, "2001:db8::1f", {}},
      {"2001:db8::1f", LookupFamily::kIPv4First, "2001:db8::1f", {}},
      {"2001:db8::1f", LookupFamily::kIPv4, "11004", {}},
      {"192.0.2.1", LookupFamily::kIPv6, "11004", {}},
      {"::ffff:192.0.2.1", LookupFamily::kIPv4, "192.0.2.1", {}},
      {"::1%lo", LookupFamily::kIPv6, "11001", {}},
      {"[::1]", LookupFamily::kIPv6, "11001", {}},
      {"localhost", LookupFamily::kIPv4, "127.0.0.1", {}},
      {"localhost", LookupFamily::kIPv6, "::1", {}},
      {"localhost", LookupFamily::kIPv4First, "127.0.0.1", {}},
  };
  for (const auto& row : rows) {
    const std::size_t before = server_.Questions();
    EXPECT_EQ(Outcome(row.name, row.family), row.outcome) << row.name;
    std::string_view name = row.name;
    if (name.ends_with('.')) name.remove_suffix(1);
    const Types types = server_.AskedTypes(name);
    ASSERT_EQ(server_.Questions() - before, row.asked.size()) << row.name;
    EXPECT_EQ(Types(types.end() - std::ssize(row.asked), types.end()), row.asked) << row.name;
  }
}

TEST_F(NameLookupTest, TheHostsFileCountsInBothFamilies) {
  WriteFile(folder_ / "hosts",
            "2001:db8::1f six.test both.test\n192.0.2.1 both.test\n2001:db8::2 both.test\n"
            "::1 localhost\n");
  lookup_ = MakeNameLookup(loop_, {.servers = server_.Address(), .hosts_file = folder_ / "hosts"});
  server_.SetAddresses("six.test", {kAddress2});
  EXPECT_EQ(Outcome("six.test", LookupFamily::kIPv6), "2001:db8::1f");
  EXPECT_EQ(Outcome("six.test", LookupFamily::kIPv4First), "2001:db8::1f");
  EXPECT_EQ(Outcome("both.test", LookupFamily::kIPv6), "2001:db8::1f 2001:db8::2");
  EXPECT_EQ(Outcome("both.test", LookupFamily::kIPv4), "192.0.2.1");
  EXPECT_EQ(Outcome("both.test", LookupFamily::kIPv4First), "192.0.2.1");
  EXPECT_EQ(Outcome("localhost", LookupFamily::kIPv4First), "127.0.0.1");
  EXPECT_EQ(Outcome(kAddress6), "six.test");
  EXPECT_EQ(lookup_->ResolveLocally("six.test"), kAddress6);
  EXPECT_EQ(lookup_->ResolveLocally("both.test"), kAddress1);
  EXPECT_EQ(lookup_->ResolveLocally("::1"), kIPv6Loopback);
  EXPECT_EQ(server_.Questions(), 0U);
  // The file knows no address of the family that is wanted: DNS may know one.
  EXPECT_EQ(Outcome("six.test", LookupFamily::kIPv4), "192.0.2.2");
}

TEST_F(NameLookupTest, BothFamiliesHaveTheTimeOfOne) {
  server_.Set("slow.test", [](const DnsQuestion& question) {
    if (question.type == dns::kAaaa) return std::vector<std::string>{};
    return std::vector{dns::AddressAnswer(question, {})};
  });
  server_.Hold();
  std::string outcome;
  Ask("slow.test", LookupFamily::kIPv4First, outcome);
  ASSERT_TRUE(RunUntil(loop_, [&] { return server_.Held() > 0; }));
  clock_.Advance(seconds(3));
  server_.Release();
  ASSERT_TRUE(RunUntil(loop_, [&] { return server_.AskedTypes("slow.test").back() == dns::kAaaa; }));
  clock_.Advance(milliseconds(1800));
  RunUntilIdle(loop_);
  EXPECT_EQ(outcome, "");
  clock_.Advance(milliseconds(200));
  RunUntilIdle(loop_);
  EXPECT_EQ(outcome, "11002");
  clock_.Advance(seconds(1));
  RunUntilIdle(loop_);
  EXPECT_FALSE(loop_.RunOnce(milliseconds(0))) << "nothing is left to do";
}

TEST_F(NameLookupTest, WithoutTimeLeftIPv6IsNotAskedFor) {
  server_.SetAddresses("six.test", {kAddress6});
  server_.Hold();
  std::string outcome;
  Ask("six.test", LookupFamily::kIPv4First, outcome);
  ASSERT_TRUE(RunUntil(loop_, [&] { return server_.Held() > 0; }));
  server_.Release();
  clock_.Advance(seconds(20));  // the whole program has stood still
  EXPECT_TRUE(RunUntil(loop_, [&] { return !outcome.empty(); }));
  EXPECT_EQ(outcome, "11002");
  EXPECT_EQ(server_.AskedTypes("six.test"), std::vector<int>{dns::kA});
}

TEST_F(NameLookupTest, ALookUpOfBothFamiliesIsCancelledInEither) {
  server_.SetAddresses("six.test", {kAddress6});
  server_.Hold();
  std::string outcome;
  for (const std::size_t released : {0U, 1U}) {
    const LookupId id = Ask("six.test", LookupFamily::kIPv4First, outcome);
    const std::size_t asked = server_.Questions() + 1;
    ASSERT_TRUE(RunUntil(loop_, [&] { return server_.Held() == 1; }));
    if (released > 0) {
      server_.Release();
      ASSERT_TRUE(RunUntil(loop_, [&] { return server_.Questions() > asked; }));
    }
    lookup_->Cancel(id);
    server_.Release();
    RunUntilIdle(loop_);
  }
  EXPECT_EQ(outcome, "");
}

TEST_F(NameLookupTest, APlainNamesIPv6AddressIsSearchedInTheSameDomains) {
  server_.SetAddresses("plain.example.test", {kAddress6});
  const std::string path = folder_ / "resolv.conf";
  WriteFile(path, "search example.test\nnameserver " + server_.Host() + "\n");
  lookup_ =
      MakeNameLookup(loop_, {.hosts_file = folder_ / "hosts", .resolver_file = path, .port = server_.Port()});
  EXPECT_EQ(Outcome("plain", LookupFamily::kIPv4First), "2001:db8::1f");
  EXPECT_EQ(server_.AskedTypes("plain.example.test"), (std::vector{dns::kA, dns::kAaaa}));
}

TEST_F(NameLookupTest, NameOfAnIPv6Address) {
  server_.SetNames(kReverse6, {"Mail.Example.test"});
  server_.SetNames(
      "1" + std::string(".0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0") + ".ip6.arpa",
      {"first.test", "second.test"});
  EXPECT_EQ(Outcome(kAddress6), "Mail.Example.test");
  EXPECT_EQ(Outcome(kIPv6Loopback), "first.test");
  EXPECT_EQ(Outcome(IP("2001:db8::2")), "11001");
  EXPECT_EQ(server_.AskedTypes(kReverse6), std::vector<int>{dns::kPtr});
}

TEST_F(NameLookupTest, AliasesAreFollowed) {
  server_.Set("alias.test", [](const DnsQuestion& question) {
    return std::vector{dns::Answer(
        question, {dns::Record(dns::kOwnName, dns::kCname, dns::EncodedName("real.test")),
                   dns::Record(dns::EncodedName("real.test"), dns::kA, dns::AddressData(kAddress1))})};
  });
  server_.Set("dangling.test", [](const DnsQuestion& question) {
    return std::vector{
        dns::Answer(question, {dns::Record(dns::kOwnName, dns::kCname, dns::EncodedName("real.test"))})};
  });
  // A network smaller than 256 addresses is delegated like this (RFC 2317).
  server_.Set(kReverse1, [](const DnsQuestion& question) {
    const std::string delegated = dns::EncodedName("1.0-31.2.0.192.in-addr.arpa");
    return std::vector{
        dns::Answer(question, {dns::Record(dns::kOwnName, dns::kCname, delegated),
                               dns::Record(delegated, dns::kPtr, dns::EncodedName("x.test"))})};
  });
  EXPECT_EQ(Outcome("alias.test"), "192.0.2.1");
  EXPECT_EQ(Outcome("dangling.test"), "11004");
  EXPECT_EQ(Outcome(kAddress1), "x.test");
}

TEST_F(NameLookupTest, FailuresHaveTheirNumbers) {
  const struct {
    const char* name;
    dns::Rcode code;
    const char* outcome;
  } cases[] = {
      {"no-data.test", dns::Rcode::kNone, "11004"},
      {"no-such-name.test", dns::Rcode::kNoSuchName, "11001"},
      {"server-failure.test", dns::Rcode::kServer, "11002"},
      {"refused.test", dns::Rcode::kRefused, "11002"},
      {"not-implemented.test", dns::Rcode::kNotImplemented, "11002"},
      {"format.test", dns::Rcode::kFormat, "11003"},
  };
  for (const auto& c : cases) {
    server_.SetFailure(c.name, c.code);
    EXPECT_EQ(Outcome(c.name), c.outcome) << c.name;
  }
  server_.SetFailure(kReverse1, dns::Rcode::kServer);
  EXPECT_EQ(Outcome(kAddress1), "11002");
}

TEST_F(NameLookupTest, DottedAddressResolvesToItself) {
  for (const char* address : {"192.0.2.1", "0.0.0.0", "255.255.255.255", "127.0.0.1"}) {
    EXPECT_EQ(Outcome(address), address);
    EXPECT_EQ(lookup_->ResolveLocally(address), ParseIPv4Address(address));
  }
  EXPECT_EQ(server_.Questions(), 0U);
}

TEST_F(NameLookupTest, OddFormsOfAddressesAreNames) {
  for (const char* name : {"127.1", "0x7f.1", "1.2.3.256", "1.2.3.4.5", "0x7f.0.0.1"}) {
    EXPECT_EQ(Outcome(name), "11001") << name;
    EXPECT_EQ(server_.Questions(name), 1U) << name;
    EXPECT_EQ(lookup_->ResolveLocally(name), std::nullopt) << name;
  }
  server_.SetAddresses("1", {kAddress1});
  EXPECT_EQ(Outcome("1"), "192.0.2.1");
}

TEST_F(NameLookupTest, ImpossibleNamesAreNotAskedFor) {
  const std::string label(63, 'x');
  const std::string longest = label + "." + label + "." + label + "." + std::string(61, 'x');
  for (const std::string& name :
       {std::string(), std::string("."), std::string("a..test"), std::string(".test"),
        std::string("a.test.."), longest + "x", std::string(100000, 'a'), std::string("a b.test"),
        std::string("a\\.test"), std::string("a\0.test", 7), std::string("a\n.test"), std::string("a/b"),
        std::string("\xC3\xA4.test"), std::string(64, 'x') + ".test"}) {
    EXPECT_EQ(Outcome(std::string_view(name)), "11001") << name.substr(0, 40);
  }
  EXPECT_EQ(server_.Questions(), 0U);
  server_.SetAddresses(longest, {kAddress1});
  EXPECT_EQ(Outcome(std::string_view(longest)), "192.0.2.1");
  server_.SetAddresses("_x.test", {kAddress1});
  EXPECT_EQ(Outcome("_x.test"), "192.0.2.1");
}

// Where DNS has something below every name of our own domain, a stranger's name must not find it.
TEST_F(NameLookupTest, NameWithADotIsAskedForAsItIs) {
  EXPECT_EQ(Outcome("missing.test"), "11001");
  EXPECT_EQ(server_.Questions(), 1U);
  EXPECT_EQ(server_.Questions("missing.test"), 1U);
}

TEST_F(NameLookupTest, HostsFileComesFirst) {
  server_.SetAddresses("known.test", {kAddress1});
  EXPECT_EQ(Outcome("KNOWN.test"), "192.0.2.77 192.0.2.78");
  EXPECT_EQ(Outcome("known.test."), "192.0.2.77 192.0.2.78");
  EXPECT_EQ(Outcome("known"), "192.0.2.77");
  EXPECT_EQ(Outcome(IP("192.0.2.77")), "Known.test");
  EXPECT_EQ(lookup_->ResolveLocally("known.TEST"), IP("192.0.2.77"));
  EXPECT_EQ(lookup_->ResolveLocally("known.test."), IP("192.0.2.77"));
  EXPECT_EQ(lookup_->ResolveLocally("unknown.test"), std::nullopt);
  EXPECT_EQ(lookup_->ResolveLocally(""), std::nullopt);
  EXPECT_EQ(server_.Questions(), 0U);
}

TEST_F(NameLookupTest, ChangedHostsFileCounts) {
  EXPECT_EQ(lookup_->ResolveLocally("known"), IP("192.0.2.77"));
  WriteFile(folder_ / "hosts", "192.0.2.99 known\n");
  std::filesystem::last_write_time(folder_ / "hosts",
                                   std::filesystem::file_time_type::clock::now() + std::chrono::hours(1));
  clock_.Advance(seconds(1));
  EXPECT_EQ(lookup_->ResolveLocally("known"), IP("192.0.2.99"));
  EXPECT_EQ(Outcome("known"), "192.0.2.99");
}

TEST_F(NameLookupTest, LocalhostIsNeverAskedFor) {
  EXPECT_EQ(Outcome("localhost"), "127.0.0.1");
  EXPECT_EQ(Outcome("x.LocalHost."), "127.0.0.1");
  EXPECT_EQ(lookup_->ResolveLocally("localhost"), kIPv4Loopback);
  EXPECT_EQ(server_.Questions(), 0U);
}

TEST_F(NameLookupTest, LocalHostNameIsTheMachines) {
  const std::string machine = MachineName();
  ASSERT_FALSE(machine.empty());
  EXPECT_EQ(lookup_->LocalHostName().name, machine);
  EXPECT_EQ(lookup_->LocalHostName().error, 0);
  WriteFile(folder_ / "hosts", "127.0.1.1 " + machine + ".example.test " + machine + "\n");
  const bool is_full = machine.find('.') != std::string::npos;
  EXPECT_EQ(lookup_->LocalHostName().name, is_full ? machine : machine + ".example.test");
}

class ConfirmedNameTest : public NameLookupTest {
 protected:
  LookupId AskConfirmed(const IPAddress& address, std::string& outcome) {
    return lookup_->FindConfirmedName(address,
                                      [&](const NameAnswer& answer) { outcome += ShownConfirmed(answer); });
  }
  std::string Confirmed(const IPAddress& address) {
    std::string outcome;
    AskConfirmed(address, outcome);
    EXPECT_EQ(outcome, "") << "answered from inside the call";
    EXPECT_TRUE(RunUntil(loop_, [&] { return !outcome.empty(); }));
    return outcome;
  }
};

TEST_F(ConfirmedNameTest, IsOneThatLeadsBack) {
  server_.SetAddresses("one.test", {kAddress1});
  server_.SetAddresses("several.test", {kAddress2, IP("10.0.0.1"), kAddress1});
  server_.SetAddresses("other.test", {kAddress2});
  server_.SetAddresses("none.test", {});
  server_.SetFailure("failing.test", dns::Rcode::kServer);
  server_.SetAddresses("mail", {kAddress1});
  server_.SetAddresses("mail.test", {kAddress1});
  server_.Set("alias.test", [](const DnsQuestion& question) {
    return std::vector{dns::Answer(
        question, {dns::Record(dns::kOwnName, dns::kCname, dns::EncodedName("real.test")),
                   dns::Record(dns::EncodedName("real.test"), dns::kA, dns::AddressData(kAddress1))})};
  });
  const struct {
    std::vector<std::string> names;
    const char* outcome;
    std::size_t questions;
  } rows[] = {
      {{"one.test"}, "one.test confirmed", 2},
      {{"One.Test"}, "One.Test confirmed", 2},
      {{"several.test"}, "several.test confirmed", 2},
      {{"alias.test"}, "alias.test confirmed", 2},
      {{"mail"}, "mail confirmed", 2},
      {{"other.test"}, "other.test", 2},
      {{"none.test"}, "none.test", 2},
      {{"missing.test"}, "missing.test", 2},
      {{"failing.test"}, "failing.test", 4},  // asked again and again
      // The first one counts.
      {{"one.test", "other.test"}, "one.test confirmed", 2},
      {{"other.test", "one.test"}, "other.test", 2},
      // Names for which no server is asked.
      {{"localhost"}, "localhost", 1},
      {{"x.localhost"}, "x.localhost", 1},
      {{"a/b.test"}, "a/b.test", 1},
      {{"192.0.2.1"}, "192.0.2.1", 1},
      {{"a b.test"}, "11003", 1},
      {{}, "11004", 1},
  };
  for (const auto& row : rows) {
    server_.SetNames(kReverse1, row.names);
    const std::size_t before = server_.Questions();
    EXPECT_EQ(Confirmed(kAddress1), row.outcome);
    EXPECT_EQ(server_.Questions() - before, row.questions) << row.outcome;
  }
  EXPECT_EQ(Confirmed(kAddress2), "11001");
}

// A question more for each session is not for nothing.
TEST_F(ConfirmedNameTest, IsNotAskedForUnlessItIsWanted) {
  server_.SetNames(kReverse1, {"one.test"});
  server_.SetAddresses("one.test", {kAddress1});
  std::string outcome;
  lookup_->FindName(kAddress1, [&](const NameAnswer& answer) { outcome = ShownConfirmed(answer); });
  EXPECT_TRUE(RunUntil(loop_, [&] { return !outcome.empty(); }));
  RunUntilIdle(loop_);
  EXPECT_EQ(outcome, "one.test");
  EXPECT_EQ(server_.Questions(), 1U);
}

TEST_F(ConfirmedNameTest, TheHostsFileConfirmsToo) {
  EXPECT_EQ(Confirmed(IP("192.0.2.77")), "Known.test confirmed");
  EXPECT_EQ(Confirmed(IP("192.0.2.78")), "known.test confirmed");
  EXPECT_EQ(server_.Questions(), 0U);
  // A name from DNS that the file gives this address.
  WriteFile(folder_ / "hosts", "192.0.2.2 one.test\n192.0.2.77 one.test\n192.0.2.77 two.test\n");
  lookup_ = MakeNameLookup(loop_, {.servers = server_.Address(), .hosts_file = folder_ / "hosts"});
  server_.SetNames(kReverse1, {"two.test"});
  server_.SetAddresses("two.test", {kAddress1});
  EXPECT_EQ(Confirmed(kAddress2), "one.test confirmed");
  EXPECT_EQ(server_.Questions(), 0U);
  // One that the file gives another address: DNS may know both.
  EXPECT_EQ(Confirmed(kAddress1), "two.test confirmed");
  EXPECT_EQ(server_.Questions("two.test"), 1U);
  server_.SetAddresses("two.test", {kAddress2});
  EXPECT_EQ(Confirmed(kAddress1), "two.test");
}

TEST_F(ConfirmedNameTest, OfAnIPv6AddressIsOneThatHasIt) {
  server_.SetAddresses("six.test", {kIPv6Loopback, kAddress6});
  server_.SetAddresses("other.test", {kIPv6Loopback, kAddress1});
  for (const auto& [name, outcome] :
       {std::pair{"six.test", "six.test confirmed"}, std::pair{"other.test", "other.test"},
        std::pair{"localhost", "localhost"}}) {
    server_.SetNames(kReverse6, {name});
    EXPECT_EQ(Confirmed(kAddress6), outcome);
  }
  // No address of the other family is asked for.
  EXPECT_EQ(server_.AskedTypes("six.test"), std::vector<int>{dns::kAaaa});
  EXPECT_EQ(server_.AskedTypes("other.test"), std::vector<int>{dns::kAaaa});
}

TEST_F(ConfirmedNameTest, AStrangersNameIsNotSearchedInTheSystemsDomains) {
  server_.SetNames(kReverse1, {"plain"});
  server_.SetAddresses("plain.example.test", {kAddress1});
  const std::string path = folder_ / "resolv.conf";
  WriteFile(path, "search example.test\nnameserver " + server_.Host() + "\n");
  lookup_ =
      MakeNameLookup(loop_, {.hosts_file = folder_ / "hosts", .resolver_file = path, .port = server_.Port()});
  EXPECT_EQ(Confirmed(kAddress1), "plain");
  EXPECT_EQ(server_.Questions("plain.example.test"), 0U);
}

TEST_F(ConfirmedNameTest, BothQuestionsHaveTheTimeOfOne) {
  server_.SetNames(kReverse1, {"silent.test"});
  server_.SetSilent("silent.test");
  server_.SetSilent("2.2.0.192.in-addr.arpa");
  server_.Hold();
  std::string outcome;
  std::string later;
  AskConfirmed(kAddress1, outcome);
  ASSERT_TRUE(RunUntil(loop_, [&] { return server_.Held() > 0; }));
  clock_.Advance(seconds(3));
  // One that has begun since then ends later, though it asks before the second question of the other.
  Ask(kAddress2, later);
  server_.Release();
  ASSERT_TRUE(Asked("silent.test"));
  clock_.Advance(milliseconds(1800));
  RunUntilIdle(loop_);
  EXPECT_EQ(outcome, "");
  clock_.Advance(milliseconds(200));
  RunUntilIdle(loop_);
  EXPECT_EQ(outcome, "silent.test");
  clock_.Advance(milliseconds(2800));
  RunUntilIdle(loop_);
  EXPECT_EQ(later, "");
  clock_.Advance(milliseconds(200));
  RunUntilIdle(loop_);
  EXPECT_EQ(later, "11002");
  clock_.Advance(seconds(1));
  RunUntilIdle(loop_);
  EXPECT_FALSE(loop_.RunOnce(milliseconds(0))) << "nothing is left to do";
}

TEST_F(ConfirmedNameTest, WithoutTimeLeftNothingMoreIsAsked) {
  server_.SetNames(kReverse1, {"one.test"});
  server_.SetAddresses("one.test", {kAddress1});
  server_.Hold();
  std::string outcome;
  AskConfirmed(kAddress1, outcome);
  ASSERT_TRUE(RunUntil(loop_, [&] { return server_.Held() > 0; }));
  server_.Release();
  clock_.Advance(seconds(20));  // the whole program has stood still
  EXPECT_TRUE(RunUntil(loop_, [&] { return !outcome.empty(); }));
  EXPECT_EQ(outcome, "one.test");
  EXPECT_EQ(server_.Questions("one.test"), 0U);
}

TEST_F(ConfirmedNameTest, ANameThatIsNotFoundInTimeFails) {
  server_.SetSilent(kReverse1);
  std::string outcome;
  AskConfirmed(kAddress1, outcome);
  ASSERT_TRUE(Asked(kReverse1));
  clock_.Advance(seconds(5));
  RunUntilIdle(loop_);
  EXPECT_EQ(outcome, "11002");
  EXPECT_EQ(server_.Questions(), server_.Questions(kReverse1));
}

TEST_F(ConfirmedNameTest, CancelledBetweenAndInBothQuestions) {
  server_.SetNames(kReverse1, {"one.test"});
  server_.SetAddresses("one.test", {kAddress1});
  server_.Hold();
  std::string outcome;
  const auto held = [&](std::size_t count) {
    return RunUntil(loop_, [&] { return server_.Held() >= count; });
  };
  // In the first one.
  lookup_->Cancel(AskConfirmed(kAddress1, outcome));
  ASSERT_TRUE(held(1));
  server_.Release();
  RunUntilIdle(loop_);
  EXPECT_EQ(server_.Questions("one.test"), 0U);
  // In the second one.
  LookupId id = AskConfirmed(kAddress1, outcome);
  ASSERT_TRUE(held(1));
  server_.Release();
  ASSERT_TRUE(held(1));
  EXPECT_EQ(server_.Questions("one.test"), 1U);
  lookup_->Cancel(id);
  server_.Release();
  RunUntilIdle(loop_);
  // At each iteration in between.
  for (int iterations = 0; iterations < 12; ++iterations) {
    id = AskConfirmed(kAddress1, outcome);
    ASSERT_TRUE(held(1));
    server_.Release();
    for (int i = 0; i < iterations; ++i) loop_.RunOnce(milliseconds(0));
    lookup_->Cancel(id);
    server_.Release();
    RunUntilIdle(loop_);
    server_.Release();
  }
  EXPECT_EQ(outcome, "");
  clock_.Advance(seconds(10));
  RunUntilIdle(loop_);
  EXPECT_EQ(outcome, "");
}

TEST_F(ConfirmedNameTest, EndsBetweenTheQuestions) {
  server_.SetNames(kReverse1, {"one.test"});
  server_.SetAddresses("one.test", {kAddress1});
  std::string outcome;
  for (int iterations = 0; iterations < 12; ++iterations) {
    AskConfirmed(kAddress1, outcome);
    for (int i = 0; i < iterations; ++i) loop_.RunOnce(milliseconds(1));
    const std::string before = outcome;
    lookup_ = MakeNameLookup(loop_, {.servers = server_.Address(), .hosts_file = folder_ / "hosts"});
    RunUntilIdle(loop_);
    EXPECT_EQ(outcome, before);
  }
}

TEST_F(NameLookupTest, SilenceFailsWithinTheLimit) {
  server_.SetSilent("silent.test");
  server_.SetSilent(kReverse1);
  std::string forward;
  std::string reverse;
  Ask("silent.test", forward);
  Ask(kAddress1, reverse);
  ASSERT_TRUE(Asked("silent.test"));
  ASSERT_TRUE(Asked(kReverse1));
  clock_.Advance(milliseconds(4800));
  RunUntilIdle(loop_);
  EXPECT_EQ(forward + reverse, "");
  clock_.Advance(milliseconds(200));
  RunUntilIdle(loop_);
  EXPECT_EQ(forward, "11002");
  EXPECT_EQ(reverse, "11002");
}

TEST_F(NameLookupTest, AnswerAfterTheLimitIsDropped) {
  server_.SetAddresses("late.test", {kAddress1});
  server_.Hold();
  std::string outcome;
  Ask("late.test", outcome);
  ASSERT_TRUE(RunUntil(loop_, [&] { return server_.Held() > 0; }));
  clock_.Advance(seconds(5));
  RunUntilIdle(loop_);
  EXPECT_EQ(outcome, "11002");
  server_.Release();
  RunUntilIdle(loop_);
  EXPECT_EQ(outcome, "11002");
}

// The answer may come from inside an iteration in which everything has stood still for longer than the limit.
TEST_F(NameLookupTest, LateAnswerThatIsThereCounts) {
  server_.SetAddresses("late.test", {kAddress1});
  server_.Hold();
  std::string outcome;
  Ask("late.test", outcome);
  ASSERT_TRUE(RunUntil(loop_, [&] { return server_.Held() > 0; }));
  server_.Release();
  clock_.Advance(seconds(20));
  EXPECT_TRUE(RunUntil(loop_, [&] { return !outcome.empty(); }));
  EXPECT_EQ(outcome, "192.0.2.1");
}

TEST_F(NameLookupTest, LoopGoesOnWhileLookupsHang) {
  server_.SetDefault([](const DnsQuestion&) { return std::vector<std::string>{}; });
  int answers = 0;
  for (int i = 0; i < 100; ++i) {
    lookup_->FindAddresses("x" + std::to_string(i) + ".test", LookupFamily::kIPv4,
                           [&](const AddressAnswer&) { ++answers; });
  }
  ASSERT_TRUE(Asked("x99.test"));
  int ticks = 0;
  int posts = 0;
  Timer timer(loop_, milliseconds(10), [&] { ++ticks; });
  timer.Enable();
  for (int i = 0; i < 100; ++i) {
    loop_.Post([&] { ++posts; });
    clock_.Advance(milliseconds(10));
    const auto before = std::chrono::steady_clock::now();
    loop_.RunOnce(milliseconds(0));
    EXPECT_LT(std::chrono::steady_clock::now() - before, seconds(1));
  }
  EXPECT_EQ(ticks, 100);
  EXPECT_EQ(posts, 100);
  EXPECT_EQ(answers, 0);
  clock_.Advance(seconds(5));
  RunUntilIdle(loop_);
  EXPECT_EQ(answers, 100);
}

// Everything that a broken or hostile server may send. None of it counts as an answer, so the true one, which
// follows, does; where nothing follows, the look-up fails.
TEST_F(NameLookupTest, GarbageIsNoAnswer) {
  const auto true_answer = [](const DnsQuestion& question) {
    return dns::AddressAnswer(question, {kAddress1});
  };
  const struct {
    const char* what;
    std::function<std::string(const DnsQuestion&)> garbage;
  } cases[] = {
      {"empty id", [](const DnsQuestion&) { return std::string(1, '\0'); }},
      {"cut in the header", [&](const DnsQuestion& q) { return true_answer(q).substr(0, 11); }},
      {"wrong id",
       [&](const DnsQuestion& q) {
         std::string message = dns::AddressAnswer(q, {kAddress2});
         message[0] = static_cast<char>(message[0] ^ 0x55);
         return message;
       }},
      {"another question",
       [&](const DnsQuestion& q) {
         DnsQuestion other = q;
         other.packet[13] = static_cast<char>(other.packet[13] ^ 1);
         return dns::AddressAnswer(other, {kAddress2});
       }},
      {"another type",
       [&](const DnsQuestion& q) {
         DnsQuestion other = q;
         other.packet[other.packet.size() - 3] = dns::kPtr;
         return dns::AddressAnswer(other, {kAddress2});
       }},
      {"noise", [](const DnsQuestion&) { return std::string(512, '\xFF'); }},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const std::string name = "garbage" + std::to_string(i) + ".test";
    server_.Set(name, [&, i](const DnsQuestion& question) {
      return std::vector{cases[i].garbage(question), true_answer(question)};
    });
    EXPECT_EQ(Outcome(std::string_view(name)), "192.0.2.1") << cases[i].what;
  }
}

// Messages that are an answer by id and question, but broken after them.
TEST_F(NameLookupTest, BrokenAnswersFail) {
  const std::string loop_name = "\xC0\x0C";  // at offset 12 + question: a pointer to the question's own name
  const struct {
    const char* what;
    std::function<std::string(const DnsQuestion&)> answer;
  } cases[] = {
      {"cut in the record",
       [](const DnsQuestion& q) {
         std::string message = dns::AddressAnswer(q, {kAddress1});
         message.resize(message.size() - 2);
         return message;
       }},
      {"no record where one is announced",
       [](const DnsQuestion& q) {
         std::string message = dns::Answer(q, {});
         message[7] = 1;
         return message;
       }},
      {"thousands of records announced",
       [](const DnsQuestion& q) {
         std::string message = dns::AddressAnswer(q, {kAddress1});
         message[6] = '\x7F';
         return message;
       }},
      {"owner that points to itself",
       [](const DnsQuestion& q) {
         const std::string self = dns::Number16(0xC000U | q.packet.size());
         return dns::Answer(q, {dns::Record(self, dns::kA, dns::AddressData(kAddress1))});
       }},
      {"owner that points behind the end",
       [](const DnsQuestion& q) {
         return dns::Answer(q, {dns::Record("\xFF\xFF", dns::kA, dns::AddressData(kAddress1))});
       }},
      {"length beyond the end",
       [](const DnsQuestion& q) {
         std::string record = dns::Record(dns::kOwnName, dns::kA, dns::AddressData(kAddress1));
         record[10] = '\x7F';
         return dns::Answer(q, {record});
       }},
      {"alias that points to itself",
       [](const DnsQuestion& q) {
         const std::string self = dns::Number16(0xC000U | (q.packet.size() + 12));
         return dns::Answer(q, {dns::Record(dns::kOwnName, dns::kCname, self),
                                dns::Record(dns::kOwnName, dns::kA, dns::AddressData(kAddress1))});
       }},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const std::string name = "broken" + std::to_string(i) + ".test";
    server_.Set(name, [&, i](const DnsQuestion& question) { return std::vector{cases[i].answer(question)}; });
    EXPECT_EQ(Outcome(std::string_view(name)), "11003") << cases[i].what;
  }
  server_.Set(kReverse1, [](const DnsQuestion& q) {
    const std::string self = dns::Number16(0xC000U | (q.packet.size() + 12));
    return std::vector{dns::Answer(q, {dns::Record(dns::kOwnName, dns::kPtr, self)})};
  });
  EXPECT_EQ(Outcome(kAddress1), "11003");
  server_.SetAddresses("good.test", {kAddress1});
  EXPECT_EQ(Outcome("good.test"), "192.0.2.1");
}

// Every cut and every flipped byte of a true answer: nothing but an end of the look-up may come of it.
TEST_F(NameLookupTest, NoCutAndNoFlippedByteDoesHarm) {
  std::size_t variant = 0;
  const auto spoil = [&variant](std::string message) {
    if (variant < message.size()) {
      message.resize(variant);
    } else {
      message[variant % message.size()] = static_cast<char>(message[variant % message.size()] ^ 0xC0);
    }
    return std::vector{message};
  };
  std::size_t length = 0;
  server_.Set("spoilt.test", [&](const DnsQuestion& question) {
    const std::string message = dns::AddressAnswer(question, {kAddress1, kAddress2});
    length = message.size();
    return spoil(message);
  });
  server_.Set(kReverse1, [&](const DnsQuestion& question) {
    return spoil(dns::NameAnswer(question, {"spoilt.test", "x.test"}));
  });
  int answers = 0;
  int asked = 0;
  for (variant = 0; variant < 200; ++variant) {
    lookup_->FindAddresses("spoilt.test", LookupFamily::kIPv4, [&](const AddressAnswer& answer) {
      EXPECT_EQ(answer.error == 0, !answer.addresses.empty());
      ++answers;
    });
    lookup_->FindName(kAddress1, [&](const NameAnswer& answer) {
      EXPECT_EQ(answer.error == 0, !answer.name.empty());
      ++answers;
    });
    asked += 2;
    const std::size_t questions = server_.Questions();
    ASSERT_TRUE(RunUntil(loop_, [&] { return server_.Questions() >= questions + 2; }));
    RunUntilIdle(loop_);
    clock_.Advance(seconds(5));  // those that are taken for no answer at all
    RunUntilIdle(loop_);
    ASSERT_EQ(answers, asked) << variant;
  }
  ASSERT_LT(2 * length, 200U) << "some variants were not reached";
}

TEST_F(NameLookupTest, TruncatedAnswerIsAskedForOverTcp) {
  std::vector<IPAddress> many;
  for (std::uint32_t i = 0; i < 100; ++i) many.push_back(IPAddress::IPv4(kAddress1.Number() + i));
  server_.Set("big.test", [&](const DnsQuestion& question) {
    return std::vector{question.over_tcp ? dns::AddressAnswer(question, many)
                                         : dns::Answer(question, {}, dns::Rcode::kNone, /*extra_flags=*/2)};
  });
  std::vector<IPAddress> found;
  lookup_->FindAddresses("big.test", LookupFamily::kIPv4,
                         [&](const AddressAnswer& answer) { found = answer.addresses; });
  EXPECT_TRUE(RunUntil(loop_, [&] { return !found.empty(); }));
  EXPECT_EQ(found, many);
}

TEST_F(NameLookupTest, ServerThatIsNotThereFailsAtOnce) {
  std::string address;
  {
    const DnsServer gone(loop_);
    address = gone.Address();
  }
  lookup_ = MakeNameLookup(loop_, {.servers = address, .hosts_file = folder_ / "hosts"});
  EXPECT_EQ(Outcome("x.test"), "11002");
  EXPECT_EQ(Outcome(kAddress1), "11002");
  // With a second server that is there, that one answers.
  lookup_ =
      MakeNameLookup(loop_, {.servers = address + "," + server_.Address(), .hosts_file = folder_ / "hosts"});
  server_.SetAddresses("x.test", {kAddress1});
  EXPECT_EQ(Outcome("x.test"), "192.0.2.1");
}

TEST_F(NameLookupTest, CancelledLookupIsNotAnswered) {
  server_.SetAddresses("one.test", {kAddress1});
  std::string cancelled;
  std::string other;
  const LookupId id = Ask("one.test", cancelled);
  const LookupId at_once = Ask("192.0.2.1", cancelled);
  EXPECT_NE(id, 0U);
  EXPECT_NE(at_once, id);
  lookup_->Cancel(id);
  lookup_->Cancel(at_once);
  lookup_->Cancel(id);
  lookup_->Cancel(0);
  lookup_->Cancel(123456);
  Ask("one.test", other);
  EXPECT_TRUE(RunUntil(loop_, [&] { return !other.empty(); }));
  ASSERT_TRUE(Asked("one.test", 2));
  RunUntilIdle(loop_);
  EXPECT_EQ(cancelled, "");
  lookup_->Cancel(id);
}

TEST_F(NameLookupTest, CancelInsideACallback) {
  server_.SetAddresses("one.test", {kAddress1});
  std::string outcome;
  LookupId first = 0;
  LookupId second = 0;
  // Whichever is answered first cancels both, itself included.
  const auto answer = [&](const AddressAnswer& found) {
    outcome += Shown(found);
    lookup_->Cancel(first);
    lookup_->Cancel(second);
  };
  first = lookup_->FindAddresses("192.0.2.5", LookupFamily::kIPv4, answer);
  second = lookup_->FindAddresses("192.0.2.6", LookupFamily::kIPv4, answer);
  RunUntilIdle(loop_);
  EXPECT_EQ(outcome, "192.0.2.5");
  outcome.clear();
  first = lookup_->FindAddresses("one.test", LookupFamily::kIPv4, answer);
  second = lookup_->FindAddresses("one.test", LookupFamily::kIPv4, answer);
  ASSERT_TRUE(Asked("one.test", 2));
  RunUntilIdle(loop_);
  EXPECT_EQ(outcome, "192.0.2.1");
}

TEST_F(NameLookupTest, AskingInsideACallback) {
  server_.SetNames(kReverse1, {"one.test"});
  server_.SetAddresses("one.test", {kAddress1});
  std::string outcome;
  lookup_->FindName(kAddress1, [&](const NameAnswer& found) {
    Ask(std::string_view(found.name), outcome);
    EXPECT_EQ(outcome, "");
  });
  EXPECT_TRUE(RunUntil(loop_, [&] { return !outcome.empty(); }));
  EXPECT_EQ(outcome, "192.0.2.1");
}

TEST_F(NameLookupTest, EndsWithLookupsUnderWay) {
  server_.SetSilent("silent.test");
  std::string outcome;
  for (int i = 0; i < 10; ++i) {
    Ask("silent.test", outcome);
    Ask("192.0.2.1", outcome);
    Ask(kAddress1, outcome);
  }
  ASSERT_TRUE(Asked("silent.test"));
  Ask("192.0.2.1", outcome);
  outcome.clear();
  lookup_.reset();
  RunUntilIdle(loop_);
  clock_.Advance(seconds(10));
  RunUntilIdle(loop_);
  EXPECT_EQ(outcome, "");
}

TEST_F(NameLookupTest, EndsInsideACallback) {
  server_.SetAddresses("one.test", {kAddress1});
  server_.SetSilent("silent.test");
  std::string outcome;
  const std::string big(100, 'x');  // what the call holds must live on
  Ask("silent.test", outcome);
  for (int i = 0; i < 3; ++i) {
    lookup_->FindAddresses("one.test", LookupFamily::kIPv4, [&, big](const AddressAnswer& found) {
      lookup_.reset();
      outcome += Shown(found) + big.substr(99);
    });
  }
  EXPECT_TRUE(RunUntil(loop_, [&] { return !outcome.empty(); }));
  clock_.Advance(seconds(10));
  RunUntilIdle(loop_);
  EXPECT_EQ(outcome, "192.0.2.1x");
}

TEST_F(NameLookupTest, ThousandsAtOnceShareTheirSockets) {
  constexpr int kMany = 6000;
  server_.SetDefault(
      [](const DnsQuestion& question) { return std::vector{dns::AddressAnswer(question, {kAddress1})}; });
  server_.Hold();
  const std::size_t before = OpenDescriptors();
  int answers = 0;
  int good = 0;
  const auto start = std::chrono::steady_clock::now();
  // In portions, since asker and server share one thread and the server's buffer is small.
  for (int i = 0; i < kMany; ++i) {
    lookup_->FindAddresses("x" + std::to_string(i) + ".test", LookupFamily::kIPv4,
                           [&](const AddressAnswer& answer) {
                             ++answers;
                             if (answer.error == 0) ++good;
                           });
    if (i % 50 == 49) loop_.RunOnce(milliseconds(0));
  }
  ASSERT_TRUE(RunUntil(loop_, [&] { return server_.Held() >= kMany; }));
  EXPECT_LE(OpenDescriptors(), before + 8);
  EXPECT_EQ(answers, 0);
  while (server_.Held() > 0) {
    server_.Release(50);
    loop_.RunOnce(milliseconds(0));
  }
  EXPECT_TRUE(RunUntil(loop_, [&] { return answers == kMany; }));
  EXPECT_EQ(good, kMany);
  // The sockets go with their last question.
  clock_.Advance(seconds(1));
  RunUntilIdle(loop_);
  EXPECT_LE(OpenDescriptors(), before);
  // With the sanitizers on a slow machine too; a cost that grows with the square takes minutes.
  EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(20));
}

TEST_F(NameLookupTest, ThousandsThatHangEndInTime) {
  constexpr int kMany = 6000;
  server_.SetDefault([](const DnsQuestion&) { return std::vector<std::string>{}; });
  const std::size_t before = OpenDescriptors();
  int answers = 0;
  for (int i = 0; i < kMany; ++i) {
    lookup_->FindName(IPAddress::IPv4(0x0A000000 + static_cast<std::uint32_t>(i)),
                      [&](const NameAnswer& answer) {
                        EXPECT_EQ(answer.error, 11002);
                        ++answers;
                      });
  }
  clock_.Advance(seconds(5));
  EXPECT_TRUE(RunUntil(loop_, [&] { return answers == kMany; }));
  clock_.Advance(seconds(1));
  RunUntilIdle(loop_);
  EXPECT_LE(OpenDescriptors(), before) << "what nobody waits for is dropped";
  clock_.Advance(seconds(1));
  EXPECT_FALSE(loop_.RunOnce(milliseconds(0))) << "nothing is left to do";
}

// A fixed port would leave only the number of the question to be guessed by one who forges answers.
TEST_F(NameLookupTest, QuestionsComeFromChangingPorts) {
  std::set<std::uint16_t> ports;
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(Outcome("missing.test"), "11001");
    ports.insert(server_.LastPort());
  }
  EXPECT_GT(ports.size(), 10U);
  // Nor does it stay for long where one question follows the other and the socket is never idle.
  server_.SetSilent("silent.test");
  std::string silent;
  Ask("silent.test", silent);
  ports.clear();
  for (int i = 0; i < 1100; ++i) {
    ASSERT_EQ(Outcome("missing.test"), "11001");
    ports.insert(server_.LastPort());
  }
  EXPECT_GT(ports.size(), 1U);
  EXPECT_EQ(silent, "");
}

TEST_F(NameLookupTest, SocketGoesWithTheLastThatWaits) {
  server_.SetSilent("silent.test");
  const auto socket_of_next = [&] {
    EXPECT_EQ(Outcome("missing.test"), "11001");
    return server_.LastPort();
  };
  std::string silent;
  const LookupId first = Ask("silent.test", silent);
  Ask("silent.test", silent);
  ASSERT_TRUE(Asked("silent.test", 2));
  const std::uint16_t port = server_.LastPort();
  lookup_->Cancel(first);
  clock_.Advance(milliseconds(200));
  RunUntilIdle(loop_);
  EXPECT_EQ(socket_of_next(), port);
  clock_.Advance(seconds(5));
  RunUntilIdle(loop_);
  EXPECT_EQ(silent, "11002");
  EXPECT_NE(socket_of_next(), port);
}

TEST_F(NameLookupTest, DescriptorsUsedUpBySessionsDoNotStopLookups) {
  // The servers must be read from the file then; without it the first address of loopback would be asked.
  DnsServer server(loop_, DnsServer::kOtherHost, server_.Port());
  server.SetAddresses("one.test", {kAddress1});
  const std::string path = folder_ / "resolv.conf";
  WriteFile(path, "nameserver " + server.Host() + "\n");
  lookup_ =
      MakeNameLookup(loop_, {.hosts_file = folder_ / "hosts", .resolver_file = path, .port = server.Port()});
  OpenFileLimit limit;
  limit.LeaveOnly(0);
  ASSERT_TRUE(OpenFileLimit::NoneLeft());
  // More than one channel takes, so that some begin meanwhile.
  for (int i = 0; i < 2500; ++i) {
    ASSERT_EQ(Outcome("one.test"), "192.0.2.1") << i;
    limit.LeaveOnly(0);  // also of those that were given back meanwhile
  }
}

TEST_F(NameLookupTest, ChangedServersAreAsked) {
  DnsServer other(loop_, DnsServer::kOtherHost, server_.Port());
  server_.SetAddresses("x.test", {kAddress1});
  server_.SetSilent("slow.test");
  other.SetAddresses("x.test", {kAddress2});
  const std::string path = folder_ / "resolv.conf";
  WriteFile(path, "nameserver " + server_.Host() + "\n");
  lookup_ =
      MakeNameLookup(loop_, {.hosts_file = folder_ / "hosts", .resolver_file = path, .port = server_.Port()});
  EXPECT_EQ(Outcome("x.test"), "192.0.2.1");
  std::string slow;
  Ask("slow.test", slow);
  ASSERT_TRUE(Asked("slow.test"));

  WriteFile(path, "nameserver " + other.Host() + "\n");
  std::filesystem::last_write_time(path,
                                   std::filesystem::file_time_type::clock::now() + std::chrono::hours(1));
  clock_.Advance(seconds(1));
  EXPECT_EQ(Outcome("x.test"), "192.0.2.2");
  // The one under way is not lost.
  EXPECT_EQ(slow, "");
  clock_.Advance(seconds(4));
  RunUntilIdle(loop_);
  EXPECT_EQ(slow, "11002");
}

TEST_F(NameLookupTest, PlainNameIsSearchedInTheSystemsDomains) {
  server_.SetAddresses("plain.example.test", {kAddress1});
  const std::string path = folder_ / "resolv.conf";
  WriteFile(path, "search example.test\nnameserver " + server_.Host() + "\n");
  lookup_ =
      MakeNameLookup(loop_, {.hosts_file = folder_ / "hosts", .resolver_file = path, .port = server_.Port()});
  EXPECT_EQ(Outcome("plain"), "192.0.2.1");
  EXPECT_EQ(Outcome("plain."), "11001");
  EXPECT_EQ(Outcome("plain.other.test"), "11001");
  EXPECT_EQ(server_.Questions("plain.other.test.example.test"), 0U);
}

TEST_F(NameLookupTest, BadServerListIsRefused) {
  try {
    MakeNameLookup(loop_, {.servers = "no address"});
    ADD_FAILURE() << "nothing was raised";
  } catch (const Error& error) {
    EXPECT_EQ(error.Number(), 57);
  }
}

// The same with time as it is: c-ares asks again by itself, and an unanswered look-up ends in the limit.
class NameLookupInRealTime : public testing::Test {
 protected:
  void Make(Milliseconds limit) {
    lookup_ =
        MakeNameLookup(loop_, {.servers = server_.Address(), .hosts_file = "/nonexistent", .limit = limit});
  }
  SystemClock clock_;
  EventLoop loop_{clock_};
  DnsServer server_{loop_};
  std::unique_ptr<NameLookup> lookup_;
};

TEST_F(NameLookupInRealTime, LostQuestionIsAskedAgain) {
  Make(seconds(5));
  server_.Set("lost.test", [this](const DnsQuestion& question) {
    // The first datagram is lost on the way.
    if (server_.Questions("lost.test") == 1) return std::vector<std::string>{};
    return std::vector{dns::AddressAnswer(question, {kAddress1})};
  });
  std::string outcome;
  lookup_->FindAddresses("lost.test", LookupFamily::kIPv4,
                         [&](const AddressAnswer& answer) { outcome = Shown(answer); });
  EXPECT_TRUE(RunUntil(loop_, [&] { return !outcome.empty(); }));
  EXPECT_EQ(outcome, "192.0.2.1");
  EXPECT_EQ(server_.Questions("lost.test"), 2U);
}

TEST_F(NameLookupInRealTime, SilenceEndsWithTheLimit) {
  Make(milliseconds(200));
  server_.SetSilent("silent.test");
  std::string outcome;
  const auto start = std::chrono::steady_clock::now();
  lookup_->FindAddresses("silent.test", LookupFamily::kIPv4,
                         [&](const AddressAnswer& answer) { outcome = Shown(answer); });
  EXPECT_TRUE(RunUntil(loop_, [&] { return !outcome.empty(); }));
  EXPECT_EQ(outcome, "11002");
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(150));
  EXPECT_GE(server_.Questions("silent.test"), 2U);
}

TEST(FakeNameLookup, AnswersFromTheLoopOrOnDeliver) {
  FakeClock clock;
  EventLoop loop(clock);
  auto fake = std::make_unique<FakeNameLookup>(loop);
  fake->SetAddresses("A.test", {kAddress1, kAddress2});
  fake->SetAddressError("b.test", 11002);
  fake->SetName(kAddress1, "a.test");
  fake->SetNameError(kAddress2, 11004);
  fake->SetLocalAddress("known.test", kAddress2);
  std::string log;
  const auto ask = [&](const char* name) {
    return fake->FindAddresses(name, LookupFamily::kIPv4,
                               [&](const AddressAnswer& answer) { log += Shown(answer) + ";"; });
  };
  const auto ask_name = [&](const IPAddress& address) {
    return fake->FindName(address, [&](const NameAnswer& answer) { log += Shown(answer) + ";"; });
  };
  for (const char* name : {"a.TEST", "b.test", "c.test", "192.0.2.9", "known.test"}) ask(name);
  for (const IPAddress& address : {kAddress1, kAddress2, kIPv4Any}) ask_name(address);
  EXPECT_EQ(log, "");
  RunUntilIdle(loop);
  EXPECT_EQ(log, "192.0.2.1 192.0.2.2;11002;11001;192.0.2.9;192.0.2.2;a.test;11004;11001;");
  EXPECT_EQ(fake->AddressRequests(), 5U);
  EXPECT_EQ(fake->NameRequests(), 3U);

  log.clear();
  fake->HoldAnswers();
  const LookupId cancelled = ask("a.test");
  ask("b.test");
  fake->Cancel(cancelled);
  RunUntilIdle(loop);
  EXPECT_EQ(log, "");
  EXPECT_EQ(fake->Waiting(), 1U);
  EXPECT_EQ(fake->Deliver(), 1U);
  EXPECT_EQ(log, "11002;");
  EXPECT_EQ(fake->Cancelled(), 1U);
  ask("a.test");
  fake.reset();
  RunUntilIdle(loop);
  EXPECT_EQ(log, "11002;");
}

}  // namespace
}  // namespace trabex
