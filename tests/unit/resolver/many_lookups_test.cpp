// Look-ups that are given up, thousands at once, and what they take of the system.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "base/error.h"
#include "name_lookup_fixture.h"
#include "support/open_file_limit.h"
#include "support/system_socket.h"

namespace trabex {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

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
  // The next socket could get the port of one that is gone.
  const auto is_free = [port] { return SystemSocket(Transport::kUdp).Bind({kIPv4Loopback, port}); };
  lookup_->Cancel(first);
  clock_.Advance(milliseconds(200));
  RunUntilIdle(loop_);
  EXPECT_EQ(socket_of_next(), port);
  EXPECT_FALSE(is_free());
  clock_.Advance(seconds(5));
  RunUntilIdle(loop_);
  EXPECT_EQ(silent, "11002");
  EXPECT_TRUE(is_free());
}

TEST_F(NameLookupTest, DescriptorsUsedUpBySessionsDoNotStopLookups) {
  // The servers must be read from the file then; without it the first address of loopback would be asked.
  DnsServer server(loop_, DnsServer::kOtherHost, server_.Port());
  server.SetAddresses("one.test", {kAddress1});
  const std::string path = folder_ / "resolv.conf";
  WriteFile(path, "nameserver " + server.Host() + "\n");
  const NameLookupOptions settings{
      .hosts_file = folder_ / "hosts", .resolver_file = path, .port = server.Port()};
  // A sanitizer opens a pipe when it first meets an object of a type: it shall have met all of them.
  lookup_ = MakeNameLookup(loop_, settings);
  ASSERT_EQ(Outcome("one.test"), "192.0.2.1");
  lookup_ = MakeNameLookup(loop_, settings);
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

}  // namespace
}  // namespace trabex
