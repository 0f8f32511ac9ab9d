#include "greylist/mGreyListing.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "support/ascii_spellings.h"
#include "support/calendar.h"
#include "support/fake_clock.h"
#include "support/ip_address.h"
#include "support/recorded_log.h"
#include "support/utf8.h"
#include "unit/greylist/greylist_support.h"

namespace trabex {
namespace {

using enum GreyListingOutcome;

constexpr double kMinute = 1 / kMinutesPerDay;
constexpr std::int32_t kMax = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t kMin = std::numeric_limits<std::int32_t>::min();

// 15 November 2026, 12:00:00 universal time, an exact number of days and halves.
const DateTime kNoon = FromCalendar({.year = 2026, .month = 11, .day = 15, .hour = 12});

ExpressionList Patterns(std::initializer_list<const char*> patterns) {
  ExpressionList list;
  for (const char* pattern : patterns) list.Add(pattern, {{pattern}, false});
  return list;
}

IPRangeList Range(const char* text) {
  return IPRangeList({mCommon::InitIPRange(text)});
}

// The defaults of the initialization file, except that the host black list is empty.
class GreyListing : public testing::Test {
 protected:
  GreyListing() {
    settings_.Enabled = true;
    settings_.Delay = 16 * kMinute;
    settings_.BlackListDelay = 64 * kMinute;
    settings_.TTL = 51840 * kMinute;
    settings_.ShortTTL = 240 * kMinute;
    settings_.MinCount = 1;
    settings_.BlackListMinCount = 2;
    SetTime(kNoon);
  }

  // Universal time; the machine is three hours east of Greenwich.
  void SetTime(DateTime time) {
    clock_.SetBias(-180);
    clock_.SetNow(time + 180 * kMinute);
    // The way back is not always exact.
    EXPECT_NEAR(clock_.UniversalNow(), time, 1e-10);
  }
  // So that now is exactly `time`.
  void SetTimeExactly(DateTime time) {
    clock_.SetBias(0);
    clock_.SetNow(time);
  }

  GreyListingOutcome Check(std::string_view ip = "10.1.2.3", std::string_view host = "mail.a.test",
                           std::string_view sender = "s@a.test", std::string_view recipient = "r@b.test") {
    return grey_.GreyListingCheck(host, IP(ip), sender, recipient);
  }
  const cGreyListingData& Record(std::string_view key = "10.1.2 s@a.test r@b.test") {
    const cGreyListingData* record = database_.Find(key);
    if (record == nullptr) throw std::runtime_error("no record " + std::string(key));
    return *record;
  }

  GreyListingSettings settings_ = DefaultConfiguration().GreyListing;
  RecordedLog log_;
  FakeClock clock_;
  GreyListingDatabase database_;
  EventLoop loop_{clock_};
  PendingWarning warning_{log_, loop_};
  mGreyListing grey_{settings_, log_, clock_, database_, warning_};
};

TEST_F(GreyListing, ANewTripleIsDelayed) {
  EXPECT_EQ(Check(), kNew);
  EXPECT_EQ(Record().Count(), -1);
  const DateTime now = clock_.UniversalNow();
  EXPECT_EQ(Record().ExpireAt(), now + 240 * kMinute);
  EXPECT_EQ(Record().DelayedUntil(), now + 16 * kMinute);
  EXPECT_TRUE(database_.Changed());
}

TEST_F(GreyListing, OutcomesHaveNumbersOfTheirOwn) {
  EXPECT_EQ(static_cast<int>(kNew), 0);
  EXPECT_EQ(static_cast<int>(kExpired), 1);
  EXPECT_EQ(static_cast<int>(kDelayed), 2);
  EXPECT_EQ(static_cast<int>(kAccepted), 3);
  EXPECT_EQ(static_cast<int>(kWhitelisted), 4);
  EXPECT_TRUE(IsDelayed(kNew));
  EXPECT_TRUE(IsDelayed(kExpired));
  EXPECT_TRUE(IsDelayed(kDelayed));
  EXPECT_FALSE(IsDelayed(kAccepted));
  EXPECT_FALSE(IsDelayed(kWhitelisted));
}

TEST_F(GreyListing, PassesAtTheFirstRetryAfterTheDelay) {
  EXPECT_EQ(Check(), kNew);
  SetTime(kNoon + 5 * kMinute);
  EXPECT_EQ(Check(), kDelayed);
  EXPECT_EQ(Record().Count(), -2);
  SetTime(kNoon + 15.9 * kMinute);
  EXPECT_EQ(Check(), kDelayed);
  EXPECT_EQ(Record().Count(), -3);
  // Neither date moves while it is delayed.
  EXPECT_NEAR(Record().ExpireAt(), kNoon + 240 * kMinute, 1e-9);
  EXPECT_NEAR(Record().DelayedUntil(), kNoon + 16 * kMinute, 1e-9);
  SetTime(kNoon + 17 * kMinute);
  EXPECT_EQ(Check(), kAccepted);
  EXPECT_EQ(Record().Count(), 4);
  EXPECT_NEAR(Record().ExpireAt(), kNoon + (17 + 51840) * kMinute, 1e-9);
  SetTime(kNoon + 20 * kMinute);
  EXPECT_EQ(Check(), kAccepted);
  EXPECT_EQ(Record().Count(), 5);
  EXPECT_NEAR(Record().ExpireAt(), kNoon + (20 + 51840) * kMinute, 1e-9);
}

// What becomes of a record, now being kSomeNow, Delay 16, BlackListDelay 64, TTL 51840 and ShortTTL 240
// minutes.
struct Row {
  const char* what;
  std::int32_t count;
  double expire_at;      // minutes from now
  double delayed_until;  // minutes from now
  std::int32_t min_count;
  bool blacklisted;
  GreyListingOutcome outcome;
  std::int32_t new_count;
  double new_expire_at;
  double new_delayed_until;
};

TEST_F(GreyListing, DecidesByTheRecord) {
  constexpr double kTiny = 1e-7;  // minutes; more than the steps of a date at this distance
  const Row rows[] = {
      {"retry before the delay", -1, 200, 5, 1, false, kDelayed, -2, 200, 5},
      {"retry at the delay's end", -1, 200, 0, 1, false, kAccepted, 2, 51840, 0},
      {"retry just before it", -1, 200, kTiny, 1, false, kDelayed, -2, 200, kTiny},
      {"retry just after it", -1, 200, -kTiny, 1, false, kAccepted, 2, 51840, -kTiny},
      {"attempts equal to the minimum", -1, 200, -5, 2, false, kDelayed, -2, 200, -5},
      {"one attempt more", -2, 200, -5, 2, false, kAccepted, 3, 51840, -5},
      {"the largest minimum count", kMin + 2, 200, -5, kMax, false, kDelayed, kMin + 1, 200, -5},
      {"more attempts than it", kMin + 1, 200, -5, kMax, false, kAccepted, kMax, 51840, -5},
      {"the attempts are at their end", kMin, 200, -5, 1, false, kAccepted, kMax, 51840, -5},
      {"delayed with the attempts at their end", kMin, 200, 5, 1, false, kDelayed, kMin, 200, 5},
      {"accepted before", 4, 200, -500, 1, false, kAccepted, 5, 51840, -500},
      {"accepted before, whatever the delay", 4, 200, 500, 9, false, kAccepted, 5, 51840, 500},
      {"the count of acceptances is at its end", kMax, 200, -500, 1, false, kAccepted, kMax, 51840, -500},
      {"a count of 0", 0, 200, 5, 9, false, kAccepted, 1, 51840, 5},
      {"at its expiry, still delayed", -1, 0, 5, 1, false, kDelayed, -2, 0, 5},
      {"at its expiry, delay over", -1, 0, -5, 1, false, kAccepted, 2, 51840, -5},
      {"at its expiry, accepted before", 7, 0, -5, 1, false, kAccepted, 8, 51840, -5},
      {"just expired", -1, -kTiny, -5, 1, false, kAccepted, 1, 51840, 16},
      {"expired while delayed", -3, -5, 5, 9, false, kAccepted, 1, 51840, 16},
      {"expired after acceptance", 7, -5, -500, 9, false, kAccepted, 1, 51840, 16},
      {"expired, blacklisted client", -1, -5, -500, 9, true, kAccepted, 1, 51840, 64},
      {"blacklisted: own minimum count", -1, 200, -5, 1, true, kDelayed, -2, 200, -5},
      {"blacklisted: one attempt more", -2, 200, -5, 9, true, kAccepted, 3, 51840, -5},
      {"blacklisted: the record's delay counts", -2, 200, 5, 1, true, kDelayed, -3, 200, 5},
  };
  settings_.IPBlackList = Range("10.1.0.0/16");
  SetTimeExactly(kSomeNow);
  for (const Row& row : rows) {
    database_.Clear();
    database_.SetChanged(false);
    settings_.MinCount = row.min_count;
    const char* ip = row.blacklisted ? "10.1.2.3" : "10.2.2.3";
    const std::string key = std::string(row.blacklisted ? "10.1.2" : "10.2.2") + " s@a.test r@b.test";
    const auto date = [](double minutes) { return kSomeNow + minutes * kMinute; };
    database_.Add({key, date(row.expire_at), date(row.delayed_until), row.count});
    EXPECT_EQ(Check(ip), row.outcome) << row.what;
    EXPECT_EQ(Record(key).Count(), row.new_count) << row.what;
    EXPECT_EQ(Record(key).ExpireAt(), date(row.new_expire_at)) << row.what;
    EXPECT_EQ(Record(key).DelayedUntil(), date(row.new_delayed_until)) << row.what;
    EXPECT_EQ(database_.Count(), 1U) << row.what;
    EXPECT_TRUE(database_.Changed()) << row.what;
  }
}

TEST_F(GreyListing, ANewTripleIsDelayedEvenWithoutADelay) {
  settings_.Delay = 0;
  EXPECT_EQ(Check(), kNew);
  EXPECT_EQ(Check(), kAccepted);
}

TEST_F(GreyListing, AnAcceptedTripleIsAcceptedAfterItsTimeToo) {
  EXPECT_EQ(Check(), kNew);
  SetTime(kNoon + 20 * kMinute);
  EXPECT_EQ(Check(), kAccepted);
  SetTime(kNoon + (20 + 51840 + 1) * kMinute);
  EXPECT_EQ(Check(), kAccepted);
  EXPECT_EQ(Record().Count(), 1);
  EXPECT_NEAR(Record().ExpireAt(), kNoon + (20 + 51840 + 1 + 51840) * kMinute, 1e-9);
}

TEST_F(GreyListing, WhitelistedClientsLeaveNoRecord) {
  settings_.IPWhiteList = Range("10.1.2.0/25");
  settings_.HostsWhiteList = Patterns({"*.good.test"});
  // A white list wins over a black one.
  settings_.IPBlackList = Range("0.0.0.0/0");
  EXPECT_EQ(Check("10.1.2.127"), kWhitelisted);
  EXPECT_EQ(Check("192.0.2.1", "mail.good.test"), kWhitelisted);
  EXPECT_EQ(database_.Count(), 0U);
  EXPECT_FALSE(database_.Changed());
  EXPECT_EQ(Check("10.1.2.128"), kNew);
  // Its neighbours' record is neither read nor changed.
  database_.SetChanged(false);
  EXPECT_EQ(Check("10.1.2.127"), kWhitelisted);
  EXPECT_EQ(Record().Count(), -1);
  EXPECT_FALSE(database_.Changed());
}

TEST_F(GreyListing, BlacklistedClientsWaitLonger) {
  settings_.IPBlackList = Range("10.1.2.3");
  settings_.HostsBlackList = Patterns({"[]"});
  struct {
    const char* ip;
    const char* host;
    bool blacklisted;
  } const cases[] = {
      {"10.1.2.3", "mail.a.test", true},
      {"10.1.3.3", "", true},  // the pattern of the empty name
      {"10.1.4.3", "mail.a.test", false},
  };
  for (const auto& client : cases) {
    database_.Clear();
    SetTimeExactly(kNoon);
    EXPECT_EQ(Check(client.ip, client.host), kNew) << client.ip;
    const std::string key = std::string(client.ip, 6) + " s@a.test r@b.test";
    EXPECT_EQ(Record(key).DelayedUntil(), kNoon + (client.blacklisted ? 64 : 16) * kMinute) << client.ip;
    EXPECT_EQ(Record(key).ExpireAt(), kNoon + 240 * kMinute) << client.ip;
  }
}

TEST_F(GreyListing, KeysAreNetworkAndLowerCaseAddresses) {
  struct {
    const char* ip;
    const char* sender;
    const char* recipient;
    const char* key;
  } const cases[] = {
      {"10.1.2.3", "s@a.test", "r@b.test", "10.1.2 s@a.test r@b.test"},
      {"10.1.2.255", "S@A.Test", "R@B.TEST", "10.1.2 s@a.test r@b.test"},
      {"255.255.255.0", "", "r@b.test", "255.255.255  r@b.test"},
      {"1.2.3.4", "\"A B\"@c.test", "Postmaster", "1.2.3 \"a b\"@c.test postmaster"},
      {"1.2.3.4", "Ä@c.test", "R@b.test", "1.2.3 ä@c.test r@b.test"},
      // Every spelling is the same triple, also the one that always was ASCII.
      {"1.2.3.4", "s@c.test", "ſales@local.teﬆ", "1.2.3 s@c.test sales@local.test"},
      {"1.2.3.4", "\uFF33@c.test", "sa\u00ADle\u200Bs@local.test", "1.2.3 s@c.test sales@local.test"},
  };
  for (const auto& triple : cases) {
    database_.Clear();
    EXPECT_EQ(Check(triple.ip, "h", triple.sender, triple.recipient), kNew) << triple.key;
    EXPECT_EQ(database_.All().begin()->Key(), triple.key);
  }
}

TEST_F(GreyListing, TheNetworkOfAnIPv6ClientIsItsPrefix) {
  const struct {
    std::int32_t prefix;
    const char* ip;
    const char* key;
  } cases[] = {
      {64, "2001:db8:0:1:2:3:4:5", "2001:db8:0:1::/64 s@a.test r@b.test"},
      {64, "2001:DB8::1", "2001:db8::/64 s@a.test r@b.test"},
      {64, "::1", "::/64 s@a.test r@b.test"},
      {48, "2001:db8:7:1:2:3:4:5", "2001:db8:7::/48 s@a.test r@b.test"},
      {16, "2001:db8:7:1:2:3:4:5", "2001::/16 s@a.test r@b.test"},
      {65, "2001:db8:7:1:8002:3:4:5", "2001:db8:7:1:8000::/65 s@a.test r@b.test"},
      {128, "2001:db8:7:1:2:3:4:5", "2001:db8:7:1:2:3:4:5/128 s@a.test r@b.test"},
      // That of IPv4 is the same whatever the prefix.
      {16, "10.1.2.3", "10.1.2 s@a.test r@b.test"},
      {128, "::ffff:10.1.2.3", "10.1.2 s@a.test r@b.test"},
  };
  for (const auto& c : cases) {
    database_.Clear();
    settings_.IPv6Prefix = c.prefix;
    EXPECT_EQ(Check(c.ip, "h"), kNew) << c.key;
    EXPECT_EQ(database_.All().begin()->Key(), c.key);
  }
}

TEST_F(GreyListing, OneRecordForAnIPv6Network) {
  EXPECT_EQ(Check("2001:db8::1"), kNew);
  EXPECT_EQ(Check("2001:db8::ffff:ffff:ffff:ffff"), kDelayed);
  EXPECT_EQ(Check("2001:db8:0:1::1"), kNew);
  EXPECT_EQ(Check("10.1.2.3"), kNew);
  EXPECT_EQ(Check("::ffff:10.1.2.4"), kDelayed);
  EXPECT_EQ(database_.Count(), 3U);
  // Under another prefix the records of before mean nothing.
  settings_.IPv6Prefix = 63;
  EXPECT_EQ(Check("2001:db8::1"), kNew);
  EXPECT_EQ(Check("2001:db8:0:1::1"), kDelayed);
  EXPECT_EQ(Check("10.1.2.3"), kDelayed);
}

TEST_F(GreyListing, ListsHoldIPv6Clients) {
  settings_.IPWhiteList = Range("2001:db8::/48");
  settings_.IPBlackList = Range("2001:db8:1::/48");
  settings_.Log = 1;
  EXPECT_EQ(Check("2001:db8::1"), kWhitelisted);
  EXPECT_EQ(Check("2001:db8:1::1"), kNew);
  EXPECT_NEAR(Record("2001:db8:1::/64 s@a.test r@b.test").DelayedUntil(), kNoon + 64 * kMinute, 1e-9);
  EXPECT_EQ(Check("2001:db8:2::1"), kNew);
  EXPECT_NEAR(Record("2001:db8:2::/64 s@a.test r@b.test").DelayedUntil(), kNoon + 16 * kMinute, 1e-9);
}

TEST_F(GreyListing, OneRecordForANetworkAndAnyCase) {
  EXPECT_EQ(Check("10.1.2.3", "a", "s@a.test", "r@b.test"), kNew);
  EXPECT_EQ(Check("10.1.2.4", "b", "S@A.TEST", "R@b.Test"), kDelayed);
  EXPECT_EQ(Check("10.1.3.3", "a", "s@a.test", "r@b.test"), kNew);
  EXPECT_EQ(Check("10.1.2.3", "a", "s2@a.test", "r@b.test"), kNew);
  EXPECT_EQ(Check("10.1.2.3", "a", "s@a.test", "r2@b.test"), kNew);
  EXPECT_EQ(database_.Count(), 4U);
}

// No spelling gives a client a new triple, and so a new first attempt.
TEST_F(GreyListing, EveryAsciiSpellingIsTheSameTriple) {
  for (const AsciiSpelling& row : kAsciiSpellings) {
    const std::string folded = row.folded;
    database_.Clear();
    EXPECT_EQ(Check("10.1.2.3", "h", "x" + folded + "@a.test", folded + "y@b.test"), kNew) << folded;
    for (const char32_t* character = row.characters; *character != 0; ++character) {
      const std::string written = Utf8(*character);
      EXPECT_EQ(Check("10.1.2.3", "h", "x" + written + "@a.test", folded + "y@b.test"), kDelayed) << written;
      EXPECT_EQ(Check("10.1.2.3", "h", "x" + folded + "@a.test", written + "y@b.test"), kDelayed) << written;
    }
    EXPECT_EQ(database_.Count(), 1U) << folded;
  }
}

TEST_F(GreyListing, ALongerKeyThanTheFileHoldsIsCut) {
  EXPECT_EQ(Check("10.1.2.3", "a", std::string(100000, 's'), "r@b.test"), kNew);
  EXPECT_EQ(database_.All().begin()->Key().size(), kMaxTaggedBytes);
  EXPECT_EQ(Plain(DatabaseOf(ContentOf(database_, kSomeNow))), Plain(database_));
}

TEST_F(GreyListing, SettingsCountFromTheNextCheckOn) {
  EXPECT_EQ(Check(), kNew);
  settings_.MinCount = 5;
  SetTime(kNoon + 20 * kMinute);
  EXPECT_EQ(Check(), kDelayed);
  settings_.MinCount = 1;
  settings_.TTL = 600 * kMinute;
  EXPECT_EQ(Check(), kAccepted);
  EXPECT_NEAR(Record().ExpireAt(), kNoon + 620 * kMinute, 1e-9);
  settings_.HostsWhiteList = Patterns({"*"});
  EXPECT_EQ(Check(), kWhitelisted);
}

TEST_F(GreyListing, NoListOfNamesIsAboutAClientWhoseNameIsNotKnown) {
  const auto check = [&](const char* ip) {
    return grey_.Judge(std::nullopt, IP(ip), "s@a.test", "r@b.test");
  };
  for (const char* pattern : {"[]", "*"}) {
    settings_.HostsWhiteList = settings_.HostsBlackList = Patterns({pattern});
    EXPECT_EQ(Check("192.0.2.1", ""), kWhitelisted) << pattern;
    EXPECT_EQ(check("192.0.2.1").outcome, kNew) << pattern;
    settings_.HostsWhiteList = ExpressionList();
    database_.Clear();
    const GreyListingVerdict verdict = check("192.0.2.1");
    EXPECT_FALSE(verdict.blacklisted) << pattern;
    EXPECT_NEAR(verdict.record->DelayedUntil(), clock_.UniversalNow() + settings_.Delay, 1e-9) << pattern;
    database_.Clear();
  }
  // Those of addresses are.
  settings_.IPWhiteList = Range("192.0.2.1");
  settings_.IPBlackList = Range("192.0.2.0/24");
  EXPECT_EQ(check("192.0.2.1").outcome, kWhitelisted);
  EXPECT_TRUE(check("192.0.2.2").blacklisted);
}

// All log lines show local time, three hours ahead.
TEST_F(GreyListing, LogsOneLinePerDecision) {
  settings_.Log = 1;
  settings_.HostsWhiteList = Patterns({"*.good.test"});
  settings_.HostsBlackList = Patterns({"*.bad.test"});
  EXPECT_EQ(Check(), kNew);
  SetTime(kNoon + 5 * kMinute);
  EXPECT_EQ(Check(), kDelayed);
  SetTime(kNoon + 17 * kMinute);
  EXPECT_EQ(Check(), kAccepted);
  SetTime(kNoon + (17 + 51840 + 1) * kMinute);
  EXPECT_EQ(Check(), kAccepted);
  SetTime(kNoon);
  EXPECT_EQ(Check("10.9.9.9", "mail.good.test"), kWhitelisted);
  EXPECT_EQ(Check("10.9.9.9", "mail.bad.test"), kNew);
  EXPECT_EQ(Check("10.9.9.9", "mail.bad.test"), kDelayed);
  SetTime(kNoon + 65 * kMinute);
  EXPECT_EQ(Check("10.9.9.9", "mail.bad.test"), kAccepted);
  EXPECT_EQ(
      log_.Lines(),
      (std::vector<std::string>{
          "Greylisting: New, Delayed. Attempts: 1; Will expire at: 15/11/2026 19:00:00; Delayed until: "
          "15/11/2026 15:16:00.",
          "Greylisting: Delayed. Attempts: 2; Will expire at: 15/11/2026 19:00:00; Delayed until: "
          "15/11/2026 15:16:00.",
          "Greylisting: Accepted. Attempts: 3; Will expire at: 21/12/2026 15:17:00.",
          "Greylisting: Accepted. Attempts: 1; Will expire at: 26/01/2027 15:18:00.",
          "Greylisting: Whitelisted.",
          "Greylisting: Blacklisted, New, Delayed. Attempts: 1; Will expire at: 15/11/2026 19:00:00; Delayed "
          "until: 15/11/2026 16:04:00.",
          "Greylisting: Blacklisted, Delayed. Attempts: 2; Will expire at: 15/11/2026 19:00:00; Delayed "
          "until: "
          "15/11/2026 16:04:00.",
          "Greylisting: Blacklisted, Accepted. Attempts: 3; Will expire at: 21/12/2026 16:05:00.",
      }));
}

TEST_F(GreyListing, LogsNothingUnlessAsked) {
  settings_.HostsWhiteList = Patterns({"*.good.test"});
  EXPECT_EQ(Check(), kNew);
  EXPECT_EQ(Check("10.9.9.9", "mail.good.test"), kWhitelisted);
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(GreyListing, LogsTheMagnitudeOfTheLowestCount) {
  settings_.Log = 1;
  SetTimeExactly(kNoon);
  database_.Add({"10.1.2 s@a.test r@b.test", kNoon + 1, kNoon + 0.5, kMin});
  EXPECT_EQ(Check(), kDelayed);
  EXPECT_EQ(log_.Lines(), (std::vector<std::string>{
                              "Greylisting: Delayed. Attempts: 2147483648; Will expire at: 16/11/2026 "
                              "12:00:00; Delayed until: 16/11/2026 00:00:00."}));
}

// --- the bounds of what was never accepted

TEST_F(GreyListing, OneMoreOfANetworkDropsItsOldest) {
  settings_.MaxPendingPerNetwork = 3;
  EXPECT_EQ(Check("10.1.3.1", "", "s@a.test", "other@b.test"), kNew);
  for (const char* recipient : {"1@b.test", "2@b.test", "3@b.test", "4@b.test", "5@b.test"}) {
    EXPECT_EQ(Check("10.1.2.3", "", "", recipient), kNew) << recipient;
  }
  EXPECT_EQ(KeysOf(database_), (std::vector<std::string>{"10.1.3 s@a.test other@b.test", "10.1.2  3@b.test",
                                                         "10.1.2  4@b.test", "10.1.2  5@b.test"}));
  // Known still, and new again.
  EXPECT_EQ(Check("10.1.2.3", "", "", "3@b.test"), kDelayed);
  EXPECT_EQ(Check("10.1.2.3", "", "", "1@b.test"), kNew);
  // An operator is to know, whether or not decisions are logged; the second time within the hour is not
  // logged.
  EXPECT_EQ(
      log_.Take(),
      (std::vector<std::string>{"Greylisting: Too many pending records. Dropped: 1; Network: 10.1.2."}));
}

TEST_F(GreyListing, OneMoreOfAnIPv6NetworkDropsItsOldest) {
  settings_.MaxPendingPerNetwork = 2;
  EXPECT_EQ(Check("2001:db8:0:1::1", "h", "other@a.test"), kNew);
  for (int host = 1; host <= 3; ++host) {
    const std::string number = std::to_string(host);
    EXPECT_EQ(Check("2001:db8::" + number, "h", "s" + number + "@a.test"), kNew);
  }
  EXPECT_EQ(KeysOf(database_), (std::vector<std::string>{"2001:db8:0:1::/64 other@a.test r@b.test",
                                                         "2001:db8::/64 s2@a.test r@b.test",
                                                         "2001:db8::/64 s3@a.test r@b.test"}));
  EXPECT_EQ(log_.Take(), (std::vector<std::string>{
                             "Greylisting: Too many pending records. Dropped: 1; Network: 2001:db8::/64."}));
}

TEST_F(GreyListing, OneMoreOfAllDropsTheOldest) {
  settings_.MaxPending = 3;
  for (const char* ip : {"10.1.1.1", "10.1.2.1", "10.1.3.1", "10.1.4.1"}) EXPECT_EQ(Check(ip), kNew);
  EXPECT_EQ(KeysOf(database_),
            (std::vector<std::string>{"10.1.2 s@a.test r@b.test", "10.1.3 s@a.test r@b.test",
                                      "10.1.4 s@a.test r@b.test"}));
  EXPECT_EQ(log_.Take(), (std::vector<std::string>{"Greylisting: Too many pending records. Dropped: 1."}));
}

TEST_F(GreyListing, AnAcceptedTripleIsNeverDropped) {
  settings_.MaxPending = 2;
  settings_.MaxPendingPerNetwork = 2;
  const auto flood = [this] {
    for (int i = 0; i < 20; ++i) Check("10.1.2.9", "", "s@a.test", std::to_string(i) + "@b.test");
  };
  EXPECT_EQ(Check(), kNew);
  SetTime(kNoon + 17 * kMinute);
  EXPECT_EQ(Check(), kAccepted);
  flood();
  EXPECT_EQ(Check(), kAccepted);
  // Nor is it when it has expired, and nor is one that was pending when it expired, and came again.
  EXPECT_EQ(Check("10.1.2.3", "", "again@a.test"), kNew);
  SetTime(kNoon + 60000 * kMinute);
  EXPECT_EQ(Check("10.1.2.3", "", "again@a.test"), kAccepted);
  flood();
  EXPECT_EQ(Check(), kAccepted);
  EXPECT_EQ(Check("10.1.2.3", "", "again@a.test"), kAccepted);
  EXPECT_EQ(database_.Count(), 4U);
  EXPECT_EQ(database_.PendingCount(), 2U);
}

TEST_F(GreyListing, ALoweredBoundActsOnTheNextTriple) {
  for (int i = 0; i < 10; ++i) Check("10.1.2.9", "", "s@a.test", std::to_string(i) + "@b.test");
  settings_.MaxPending = 3;
  EXPECT_EQ(Check("10.1.2.9", "", "s@a.test", "9@b.test"), kDelayed);
  EXPECT_EQ(database_.Count(), 10U);
  EXPECT_EQ(Check("10.1.2.9", "", "s@a.test", "10@b.test"), kNew);
  EXPECT_EQ(KeysOf(database_),
            (std::vector<std::string>{"10.1.2 s@a.test 8@b.test", "10.1.2 s@a.test 9@b.test",
                                      "10.1.2 s@a.test 10@b.test"}));
}

// New records would be older than all others by their dates, and the next to go.
TEST_F(GreyListing, AClockSetBackLetsNewTriplesPass) {
  settings_.MaxPending = 3;
  for (int i = 0; i < 3; ++i) Check("10.1.2.9", "", "s@a.test", std::to_string(i) + "@b.test");
  SetTime(kNoon - 1);
  EXPECT_EQ(Check(), kNew);
  EXPECT_EQ(Check("10.1.2.9", "", "s@a.test", "4@b.test"), kNew);
  SetTime(kNoon - 1 + 17 * kMinute);
  EXPECT_EQ(Check(), kAccepted);
}

}  // namespace
}  // namespace trabex
