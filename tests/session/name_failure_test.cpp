// Clients whose name DNS does not tell for now, and what DnsFailure makes of them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "report/counters.h"
#include "report/json_log.h"
#include "report/session_report.h"
#include "session/dialogues.h"
#include "session/session_fixture.h"
#include "support/temp_folder.h"
#include "unit/resolver/dns_server.h"

namespace trabex {
namespace {

constexpr const char* kFailed = "Name look-up failed.";
constexpr const char* kReverse = "1.0.0.127.in-addr.arpa";
constexpr const char* kPasses = "S: 220 server ready\n<- 220 server ready";
constexpr const char* kNoName = "<- 454 Unable to verify DNS PTR record for 127.0.0.1.\n-> nothing";

ExpressionList Patterns(const std::vector<const char*>& patterns) {
  ExpressionList list;
  for (const char* pattern : patterns) list.Add(pattern, {.patterns = {pattern}});
  return list;
}

bool SaysFailed(const SessionFixture& fixture) {
  for (const std::string& line : fixture.LogLines()) {
    if (line.starts_with("R: ") && line.ends_with(std::string("] ") + kFailed)) return true;
  }
  return false;
}

// The names that greylisting hears of; "?" where it hears that none is known.
struct HeardNames final : GreylistCheck {
  GreylistVerdict ShouldDefer(std::optional<std::string_view> host_name, const IPAddress&, std::string_view,
                              std::string_view) override {
    names.emplace_back(host_name.value_or("?"));
    return false;
  }
  std::vector<std::string> names;
};

TEST(NameFailure, IsNoNameInDnsForTheListsOnlyByItsSetting) {
  const struct {
    int error;  // of the look-up
    std::vector<const char*> white;
    std::vector<const char*> allow;
    const char* by_default;
    const char* unknown;
  } rows[] = {
      {11002, {}, {"*"}, kNoName, kNoName},
      // Whoever takes clients without a name need not take one that may have another.
      {11002, {"[]"}, {"*"}, kPasses, kNoName},
      {11002, {"*"}, {"*"}, kPasses, kNoName},
      {11002, {}, {"[]"}, kNoName, kNoName},
      // It is known that there is none, or none that would count.
      {11001, {"[]"}, {"*"}, kPasses, kPasses},
      {11003, {"[]"}, {"*"}, kPasses, kPasses},
      {11004, {"[]"}, {"*"}, kPasses, kPasses},
      {11001, {}, {"*"}, kNoName, kNoName},
  };
  for (const auto& row : rows) {
    for (const std::int32_t setting : {dns_failure::kNoName, dns_failure::kUnknown}) {
      SCOPED_TRACE(std::to_string(row.error) + " with DnsFailure=" + std::to_string(setting));
      SessionFixture fixture;
      fixture.Settings.ValidateRDNS = 1;
      fixture.Settings.Service.DnsFailure = setting;
      fixture.Settings.HostsWhiteList = Patterns(row.white);
      fixture.Settings.HostsAllowList = Patterns(row.allow);
      fixture.Names.SetNameError(kIPv4Loopback, row.error);
      const bool unknown = setting == dns_failure::kUnknown;
      EXPECT_EQ(fixture.Play(unknown ? row.unknown : row.by_default), "");
      EXPECT_EQ(SaysFailed(fixture), unknown && row.error == 11002);
    }
  }
}

TEST(NameFailure, LeavesAClientAloneWhoseNameDoesNotDecide) {
  const auto configure = [](SessionFixture& fixture) {
    fixture.Settings.Service.DnsFailure = dns_failure::kUnknown;
    fixture.Settings.ValidateRDNS = 2;
    fixture.Names.SetNameError(kIPv4Loopback, 11002);
  };
  PlayBothWays(configure, Greeted() + std::string("log R: {*} [      127.0.0.1] ") + kFailed);
  // Nor one that comes from a white-listed address.
  PlayBothWays(
      [&](SessionFixture& fixture) {
        configure(fixture);
        fixture.Settings.ValidateRDNS = 3;
        fixture.Settings.IPWhiteList = IPRangeList({{kIPv4Loopback, kIPv4Loopback}});
      },
      Greeted());
}

TEST(NameFailure, IsAnError) {
  SessionFixture fixture;
  fixture.Settings.Service.DnsFailure = dns_failure::kUnknown;
  fixture.Settings.LogLevelRemote = log_level::kReceived | log_level::kSent | log_level::kConnection;
  fixture.Names.SetNameError(kIPv4Loopback, 11002);
  EXPECT_EQ(fixture.Play(Greeted()), "");
  EXPECT_FALSE(SaysFailed(fixture));
}

TEST(NameFailure, IsInTheJsonLogAndCounted) {
  const TempFolder folder;
  SessionFixture fixture;
  RecordedLog log;
  Counters counters;
  JsonLog json{fixture.Settings, fixture.Time, fixture.Loop, log};
  SessionReport report{counters, json, fixture.Time};
  fixture.Observer = &report;
  fixture.Settings.Service.JsonLog = folder / "trabex.json";
  fixture.Settings.Service.DnsFailure = dns_failure::kUnknown;
  fixture.Settings.ValidateRDNS = 1;
  fixture.Settings.HostsWhiteList = Patterns({"[]"});
  fixture.Names.SetNameError(kIPv4Loopback, 11002);
  EXPECT_EQ(fixture.Play(std::string(kNoName) + "\nC: QUIT\n<- 221 *\nclosed C"), "");
  json.Flush();
  const std::string text = ReadFile(fixture.Settings.Service.JsonLog);
  EXPECT_THAT(text,
              testing::HasSubstr("\"side\":\"client\",\"number\":11002,\"text\":\"Name look-up failed.\"}"));
  // No list has decided.
  EXPECT_THAT(text, testing::HasSubstr(
                        "\"stage\":\"connect\",\"key\":\"NoPtr\",\"code\":454,\"text\":\"454 Unable to "
                        "verify DNS PTR record for 127.0.0.1.\",\"sent\":true}"));
  EXPECT_EQ(counters.replies[CountedReplyIndex(ReplyKind::kNoPtr, "")], 1U);
  fixture.Sessions().ForEach([](cProxy& session) { session.Close(); });
  fixture.Observer = nullptr;
}

// What a DNS server does, and whether it has then said that the client has no name that counts.
struct DnsCase {
  const char* what;
  bool confirm;
  std::function<void(DnsServer&)> set;
  bool is_failure;
  bool is_silent = false;
};

std::vector<DnsCase> DnsCases() {
  const auto named = [](DnsServer& server) { server.SetNames(kReverse, {"mail.client.test"}); };
  return {
      {"no such name", false, [](DnsServer&) {}, false},
      {"no data", false, [](DnsServer& s) { s.SetNames(kReverse, {}); }, false},
      {"SERVFAIL", false, [](DnsServer& s) { s.SetFailure(kReverse, dns::Rcode::kServer); }, true},
      {"REFUSED", false, [](DnsServer& s) { s.SetFailure(kReverse, dns::Rcode::kRefused); }, true},
      {"silence", false, [](DnsServer& s) { s.SetSilent(kReverse); }, true, true},
      {"a name that nothing could be", false, [](DnsServer& s) { s.SetNames(kReverse, {"a/b.test"}); },
       false},
      {"no way back", true, named, false},
      {"another way back", true,
       [=](DnsServer& s) {
         named(s);
         s.SetAddresses("mail.client.test", {IPAddress::IPv4(0xC0000201)});
       },
       false},
      {"SERVFAIL on the way back", true,
       [=](DnsServer& s) {
         named(s);
         s.SetFailure("mail.client.test", dns::Rcode::kServer);
       },
       true},
      {"silence on the way back", true,
       [=](DnsServer& s) {
         named(s);
         s.SetSilent("mail.client.test");
       },
       true, true},
  };
}

TEST(NameFailure, IsWhatADnsServerCannotOrDoesNotSay) {
  for (const DnsCase& c : DnsCases()) {
    for (const std::int32_t setting : {dns_failure::kNoName, dns_failure::kUnknown}) {
      SCOPED_TRACE(std::string(c.what) + " with DnsFailure=" + std::to_string(setting));
      const TempFolder folder;
      WriteFile(folder / "hosts", "");
      HeardNames greylisting;
      SessionFixture fixture;
      DnsServer server(fixture.Loop);
      const auto names =
          MakeNameLookup(fixture.Loop, {.servers = server.Address(), .hosts_file = folder / "hosts"});
      fixture.Names.AskInstead(names.get());
      fixture.Greylisting = &greylisting;
      fixture.Settings.LocalIPs = IPRangeList();
      fixture.Settings.GreyListing.Enabled = true;
      fixture.Settings.ConfirmHostNames = c.confirm;
      fixture.Settings.Service.DnsFailure = setting;
      c.set(server);
      fixture.Start();
      if (c.is_silent) {
        const char* const asked = c.confirm ? "mail.client.test" : kReverse;
        ASSERT_TRUE(fixture.Until([&] { return server.Questions(asked) > 0; }));
        fixture.Time.Advance(std::chrono::seconds(5));
      }
      EXPECT_EQ(fixture.Play(InTransaction()), "");
      const bool unknown = c.is_failure && setting == dns_failure::kUnknown;
      EXPECT_EQ(greylisting.names, std::vector<std::string>{unknown ? "?" : ""});
      EXPECT_EQ(SaysFailed(fixture), unknown);
      fixture.Sessions().ForEach([](cProxy& session) { session.Close(); });
      fixture.Names.AskInstead(nullptr);
    }
  }
}

}  // namespace
}  // namespace trabex
