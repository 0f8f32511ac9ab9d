#include "report/counted_lookup.h"

#include <gtest/gtest.h>

#include "platform/sockets.h"
#include "support/fake_clock.h"
#include "support/fake_name_lookup.h"
#include "support/ip_address.h"
#include "support/loop_runner.h"

namespace trabex {
namespace {

TEST(CountedLookup, CountsAnswersByKindAndResult) {
  FakeClock clock;
  EventLoop loop(clock);
  auto fake = std::make_unique<FakeNameLookup>(loop);
  FakeNameLookup& names = *fake;
  Counters counters;
  const auto counted = CountLookups(std::move(fake), clock, counters);
  names.SetName(IP("192.0.2.1"), "a.test");
  names.SetNameError(IP("192.0.2.2"), socket_error::kTryAgain);
  names.SetNameError(IP("192.0.2.3"), socket_error::kNoData);
  names.SetAddresses("a.test", {IP("192.0.2.1")});
  names.SetAddressError("b.test", socket_error::kNoRecovery);
  names.HoldAnswers();

  int answers = 0;
  for (const char* ip : {"192.0.2.1", "192.0.2.2", "192.0.2.3", "192.0.2.4"}) {
    counted->FindName(IP(ip), [&](const NameAnswer&) { ++answers; });
  }
  counted->FindConfirmedName(IP("192.0.2.1"), [&](const NameAnswer&) { ++answers; });
  for (const char* name : {"a.test", "b.test", "c.test"}) {
    counted->FindAddresses(name, LookupFamily::kIPv4, [&](const AddressAnswer&) { ++answers; });
  }
  counted->Cancel(counted->FindName(IP("192.0.2.1"), [&](const NameAnswer&) { ++answers; }));
  clock.Advance(Milliseconds(20));
  names.Deliver();

  EXPECT_EQ(answers, 8);
  EXPECT_EQ(counters.lookups[0], (CountArray<4>{2, 2, 1, 0}));
  EXPECT_EQ(counters.lookups[1], (CountArray<4>{1, 1, 1, 0}));
  EXPECT_EQ(counters.lookup_time.Count(), 8U);
  EXPECT_EQ(counters.lookup_time.UpTo(4), 0U);
  EXPECT_EQ(counters.lookup_time.UpTo(5), 8U);
}

// Answers nothing but that no answer came.
class Silence final : public NameLookup {
 public:
  LookupId FindAddresses(std::string_view, LookupFamily,
                         std::function<void(const AddressAnswer&)> answer) override {
    answer({socket_error::kTryAgain, {}, true});
    return 1;
  }
  LookupId FindName(const IPAddress&, std::function<void(const NameAnswer&)> answer) override {
    answer({socket_error::kTryAgain, {}, false, true});
    return 2;
  }
  LookupId FindConfirmedName(const IPAddress& address,
                             std::function<void(const NameAnswer&)> answer) override {
    return FindName(address, std::move(answer));
  }
  void Cancel(LookupId) override {}
  std::optional<IPAddress> ResolveLocally(std::string_view) override { return kIPv4Loopback; }
  NameAnswer LocalHostName() override { return {0, "proxy.test"}; }
};

TEST(CountedLookup, KnowsFailuresForWantOfTime) {
  const FakeClock clock;
  Counters counters;
  const auto counted = CountLookups(std::make_unique<Silence>(), clock, counters);
  counted->FindName(IP("192.0.2.1"), [](const NameAnswer&) {});
  counted->FindAddresses("a.test", LookupFamily::kIPv4, [](const AddressAnswer&) {});
  EXPECT_EQ(counters.lookups[0], (CountArray<4>{0, 0, 0, 1}));
  EXPECT_EQ(counters.lookups[1], (CountArray<4>{0, 0, 0, 1}));
  EXPECT_EQ(counted->ResolveLocally("x"), kIPv4Loopback);
  EXPECT_EQ(counted->LocalHostName().name, "proxy.test");
}

}  // namespace
}  // namespace trabex
