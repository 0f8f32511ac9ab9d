// What SessionReport makes of all that a session can tell: each series by itself, and lines that cost little.
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "base/text.h"
#include "proxy/dialogue/command_table.h"
#include "report/status_text.h"
#include "session/dialogues.h"
#include "session/reported.h"
#include "support/counted_allocations.h"

namespace trabex {
namespace {

constexpr std::string_view kFamilies[] = {"sessions_total",   "sessions_ended_total", "messages_total",
                                          "recipients_total", "replies_total",        "server_replies_total",
                                          "greylisting_total"};

// The series of these families, without "trabex_".
std::map<std::string, std::string> Series(const Counters& counters) {
  std::map<std::string, std::string> series;
  const std::string text = StatusText(counters, {.version = "1"});
  for (const std::string_view line : Split(text, '\n')) {
    constexpr std::string_view kPrefix = "trabex_";
    const std::string_view name = line.substr(0, line.find('{'));
    if (!name.starts_with(kPrefix)) continue;
    if (std::ranges::find(kFamilies, name.substr(kPrefix.size())) == std::end(kFamilies)) continue;
    const std::size_t blank = line.rfind(' ');
    series[std::string(line.substr(kPrefix.size(), blank - kPrefix.size()))] = line.substr(blank + 1);
  }
  return series;
}

std::map<std::string, std::string> NotZero(const Counters& counters) {
  auto series = Series(counters);
  std::erase_if(series, [](const auto& sample) { return sample.second == "0"; });
  return series;
}

std::string OneLabel(std::string_view family, std::string_view label, std::string_view value) {
  return std::string(family).append("{").append(label).append("=\"").append(value).append("\"}");
}

// Something that a session tells, and the series that count it.
struct Told {
  std::vector<std::string> series;
  std::function<void(SessionReport&, const cProxy&)> tell;
};

std::string RecipientSeries(const std::string& origin, std::string_view result) {
  return "recipients_total{origin=\"" + origin + "\",result=\"" + std::string(result) + "\"}";
}

void AddRecipients(const std::string& origin, std::vector<Told>& all) {
  const std::pair<RecipientResult, std::string_view> results[] = {
      {RecipientResult::kAccepted, "accepted"},
      {RecipientResult::kServerRefused, "server_refused"},
      {RecipientResult::kServerDeferred, "server_deferred"}};
  for (const auto& [result, text] : results) {
    all.push_back(
        {{RecipientSeries(origin, text)}, [which = result](SessionReport& report, const cProxy& session) {
           report.OnRecipient(session, which, "r@local.test");
         }});
  }
}

void AddReplies(const std::string& origin, std::vector<Told>& all) {
  for (const CountedReply& reply : CountedReplies()) {
    std::vector<std::string> series = {"replies_total{key=\"" + std::string(reply.key) + "\",code=\"" +
                                       std::string(reply.code) + "\"}"};
    if (reply.key.starts_with("RCPT.")) {
      series.push_back(RecipientSeries(origin, reply.code.starts_with('4') ? "deferred" : "refused"));
    }
    all.push_back({series, [&reply](SessionReport& report, const cProxy& session) {
                     const RequestedState requested;
                     report.OnOwnReply(session, {.kind = reply.kind,
                                                 .key = reply.key,
                                                 .text = "550 what the settings make of it",
                                                 .requested = requested});
                   }});
  }
}

void AddServerReplies(std::vector<Told>& all) {
  std::vector<CommandRow> rows(AllCommands().begin(), AllCommands().end());
  rows.push_back({.verb = "other", .id = Command::kOther});
  for (const CommandRow& row : rows) {
    for (const std::string reply : {"250 ok", "354-go\r\n354 on", "450 later", "599 never"}) {
      all.push_back({{"server_replies_total{command=\"" + std::string(row.verb) + "\",class=\"" +
                      reply.substr(0, 1) + "xx\"}"},
                     [command = row.id, reply](SessionReport& report, const cProxy& session) {
                       report.OnServerReply(session, command, reply);
                     }});
    }
  }
}

void AddGreylisting(std::vector<Told>& all) {
  using Outcome = GreylistVerdict::Outcome;
  const struct {
    std::string_view text;
    Outcome outcome;
    bool blacklisted;
    bool callback;
  } outcomes[] = {
      {"whitelisted", Outcome::kWhitelisted, false, false},
      {"accepted", Outcome::kAccepted, false, false},
      {"new", Outcome::kNew, false, false},
      {"delayed", Outcome::kDelayed, false, false},
      {"blacklisted_new", Outcome::kNew, true, false},
      {"blacklisted_delayed", Outcome::kDelayed, true, false},
      {"callback", Outcome::kNew, true, true},
  };
  for (const auto& c : outcomes) {
    all.push_back({{OneLabel("greylisting_total", "outcome", c.text)},
                   [c](SessionReport& report, const cProxy& session) {
                     GreylistVerdict verdict(c.outcome == Outcome::kNew || c.outcome == Outcome::kDelayed);
                     verdict.outcome = c.outcome;
                     verdict.blacklisted = c.blacklisted;
                     report.OnGreylisting(session, verdict, c.callback, {});
                   }});
  }
}

void AddEnds(std::vector<Told>& all) {
  constexpr std::string_view kEnds[] = {"quit",    "client", "server", "timeout",
                                        "refused", "badseq", "closed", "shutdown"};
  for (std::size_t how = 0; how < std::size(kEnds); ++how) {
    all.push_back({{OneLabel("sessions_ended_total", "how", kEnds[how])},
                   [how](SessionReport& report, const cProxy& session) {
                     report.OnEnd(session, static_cast<SessionEnd>(how), {});
                   }});
  }
}

std::vector<Told> AllThatIsTold(const std::string& origin) {
  std::vector<Told> all;
  all.push_back({{OneLabel("sessions_total", "origin", origin)},
                 [](SessionReport& report, const cProxy& session) { report.OnBegin(session); }});
  all.push_back({{OneLabel("messages_total", "origin", origin)},
                 [](SessionReport& report, const cProxy& session) { report.OnMessage(session, "250 ok"); }});
  AddRecipients(origin, all);
  AddReplies(origin, all);
  AddServerReplies(all);
  AddGreylisting(all);
  AddEnds(all);
  return all;
}

TEST(ReportSeries, EachCountsItsOwnAndNothingElse) {
  std::set<std::string> seen;
  for (const std::string origin : {"local", "remote"}) {
    Reported test;
    if (origin == "remote") Remote(test);
    ASSERT_EQ(test.fixture.Play(Greeted()), "");
    const cProxy& session = test.fixture.Sessions().At(0);
    for (const Told& told : AllThatIsTold(origin)) {
      Counters counters;
      SessionReport report(counters, test.json, test.fixture.Time);
      std::map<std::string, std::string> wanted;
      for (const std::string& series : told.series) wanted[series] = "3";
      for (int i = 0; i < 3; ++i) told.tell(report, session);
      EXPECT_EQ(NotZero(counters), wanted);
      seen.insert(told.series.begin(), told.series.end());
    }
  }
  for (const auto& [series, value] : Series({})) EXPECT_TRUE(seen.contains(series)) << series;
}

TEST(ReportSeries, WhatIsNothingOfThatIsNotCounted) {
  Reported test;
  ASSERT_EQ(test.fixture.Play(Greeted()), "");
  const cProxy& session = test.fixture.Sessions().At(0);
  Counters counters;
  SessionReport report(counters, test.json, test.fixture.Time);
  for (const char* reply : {"", "150 what", "650 what", "nonsense"}) {
    report.OnServerReply(session, Command::kMail, reply);
  }
  report.OnMessage(session, "550 no");
  const RequestedState requested;
  report.OnOwnReply(session,
                    {.kind = ReplyKind::kTlsBegins, .key = "", .text = "220 go", .requested = requested});
  report.OnOwnReply(session, {.kind = ReplyKind::kDataGreylisted,
                              .key = "DATA.Greylisted",
                              .text = "451 later",
                              .requested = requested,
                              .sent = false});
  EXPECT_EQ(NotZero(counters), (std::map<std::string, std::string>()));
}

TEST(ReportCost, LinesOfTheSteadyStateTakeNoMemory) {
  Reported test;
  Remote(test);
  const ExpressionList senders =
      Patterns({"somebody.else@far.away.example.net", "*.a.long.name.example.org"});
  const IPRangeList ranges({{IPAddress::IPv4(0x7F000000), IPAddress::IPv4(0x7FFFFFFF)}});
  ASSERT_EQ(test.fixture.Play(InTransaction()), "");
  const cProxy& session = test.fixture.Sessions().At(0);
  RequestedState requested;
  requested.HeloDomain = "client.with.a.long.name.example.org";
  requested.Sender = "a.long.sender@mail.a.long.name.example.org";
  requested.Recipient = "a \"long\" recipient@an.even.longer.name.example.net";
  GreylistVerdict verdict(true);
  verdict.attempts = 3;
  const auto session_of_lines = [&] {
    test.fixture.Time.Advance(Milliseconds(1234));
    verdict.delayed_until = test.fixture.Time.UniversalNow() + 0.1;
    verdict.expires = test.fixture.Time.UniversalNow() + 7;
    test.report.OnCommand(session);
    test.report.OnGreylisting(session, verdict, false, requested);
    test.report.OnTransaction(session, requested);
    for (const auto result :
         {RecipientResult::kAccepted, RecipientResult::kAccepted, RecipientResult::kServerRefused}) {
      test.report.OnRecipient(session, result, requested.Recipient);
    }
    test.report.OnContent(session, 4096);
    test.report.OnMessage(session, "250 2.0.0 Ok: queued as 4711, and more of what the server says");
    DecidingList list{.name = "SendersBlackList", .list = &senders, .value = DecidingList::Value::kSender};
    test.report.OnOwnReply(session, {.kind = ReplyKind::kMailBlackList,
                                     .key = "MAIL.BlackList",
                                     .text = "550 5.7.1 Mail from somebody not allowed.",
                                     .requested = requested,
                                     .list = list});
    list = {.name = "IPBlackList", .ranges = &ranges};
    test.report.OnOwnReply(session, {.kind = ReplyKind::kIPBlackList,
                                     .key = "IPBlackList",
                                     .text = "554 Connection not allowed.",
                                     .requested = requested,
                                     .list = list});
    test.report.OnServerNotReached(session, 10061, "Connection is forcefully rejected.");
    test.report.OnFailure(session, true, 10054, "Connection reset by peer.");
    test.report.OnEnd(session, SessionEnd::kQuit, {1, 2});
    test.json.Flush();
  };
  // As many refusals are kept.
  for (std::size_t i = 0; i < RecentRefusals::kMax; ++i) session_of_lines();
  const std::size_t lines_before = test.Lines().size();
  for (int i = 0; i < 10; ++i) session_of_lines();
  const std::size_t lines = test.Lines().size() - lines_before;
  std::size_t count = 0;
  {
    const CountedAllocations allocations;
    for (int i = 0; i < 100; ++i) session_of_lines();
    count = allocations.Count();
  }
  EXPECT_EQ(count, 0U);
  EXPECT_EQ(test.Lines().size(), lines_before + 11 * lines);
  EXPECT_EQ(lines, 10U * 7);
  // The count itself works.
  const CountedAllocations allocations;
  const std::string more(100, 'x');
  EXPECT_EQ(allocations.Count(), 1U) << more;
}

}  // namespace
}  // namespace trabex
