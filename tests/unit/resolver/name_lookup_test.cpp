// What is found for names and addresses.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "name_lookup_fixture.h"
#include "resolver/host_settings.h"
#include "support/fake_name_lookup.h"
#include "support/ip_address.h"

namespace trabex {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

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
