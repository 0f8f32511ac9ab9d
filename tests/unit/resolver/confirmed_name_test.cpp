// Names of addresses that lead back to them.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "name_lookup_fixture.h"
#include "support/ip_address.h"

namespace trabex {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

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
      {{"failing.test"}, "failing.test unconfirmed for now", 4},  // asked again and again
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
  EXPECT_EQ(outcome, "silent.test unconfirmed for now");
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
  EXPECT_EQ(outcome, "one.test unconfirmed for now");
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

}  // namespace
}  // namespace trabex
