#include "app/greylist_tool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "app/greylist_text.h"
#include "base/error.h"
#include "support/fake_clock.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

constexpr double kMinute = 1 / kMinutesPerDay;

class GreyListToolTest : public testing::Test {
 protected:
  GreyListToolTest() {
    settings_.Delay = 10 * kMinute;
    settings_.BlackListDelay = 60 * kMinute;
    settings_.ShortTTL = 0.5;
    settings_.TTL = 30;
    settings_.MinCount = 0;
    settings_.IPv6Prefix = 64;
    settings_.MaxPending = 1'000'000;
    settings_.MaxPendingPerNetwork = 1'000'000;
  }

  ControlAnswer Ask(const std::vector<std::string>& arguments) { return AskOf(database_, arguments); }
  ControlAnswer AskOf(GreyListingDatabase& database, const std::vector<std::string>& arguments) {
    ControlReply reply = AnswerGreyList(Inputs(database), arguments);
    if (auto* const answer = std::get_if<ControlAnswer>(&reply)) return *answer;
    const auto slices = std::get<ControlSlices>(reply);
    ControlAnswer whole;
    for (bool more = true; more;) {
      ControlAnswer slice;
      more = slices(slice);
      whole.text += slice.text;
      ++slices_;
    }
    return whole;
  }
  GreyListToolInputs Inputs(GreyListingDatabase& database) {
    return {.database = database,
            .settings = settings_,
            .clock = clock_,
            .loads = [this] { return loads_; },
            .hold_saves =
                [this](std::function<void()> complete) {
                  if (complete_) return false;
                  complete_ = std::move(complete);
                  holds_.push_back(true);
                  return true;
                },
            .release_saves =
                [this] {
                  complete_ = nullptr;
                  holds_.push_back(false);
                }};
  }
  // A file with so many records.
  std::string LongFile(int count) {
    const DateTime now = clock_.UniversalNow();
    GreyListingDatabase source;
    for (int i = 0; i < count; ++i) source.Add({"n" + std::to_string(i) + " s r", now + 1, now, 1});
    return Path(AskOf(source, {"export"}).text);
  }
  // Accepted, waiting and past its end.
  void Fill() {
    const DateTime now = clock_.UniversalNow();
    database_.Add({"192.0.2 s@x.example r@y.example", now + 30, now - 1, 3});
    database_.Add({"192.0.2  r@y.example", now + 0.25, now + 5 * kMinute, -1});
    database_.Add({"2001:db8::/64 \"a b\"@x.example z@y.example", now - 1, now - 2, -2});
  }
  std::string Path(const std::string& text) {
    const std::string path = folder_ / "records";
    WriteFile(path, text);
    return path;
  }

  FakeClock clock_;  // 15 November 2026, 16:54:24
  Configuration configuration_ = DefaultConfiguration();
  GreyListingSettings& settings_ = configuration_.GreyListing;
  GreyListingDatabase database_;
  TempFolder folder_;
  std::uint64_t loads_ = 0;
  std::function<void()> complete_;
  std::vector<bool> holds_;
  int slices_ = 0;
};

TEST_F(GreyListToolTest, ListsRecords) {
  Fill();
  const std::string accepted =
      "192.0.2\ts@x.example\tr@y.example\taccepted\t3\t2026-11-14T16:54:24Z\t2026-12-15T16:54:24Z\n";
  const std::string waiting =
      "192.0.2\t<>\tr@y.example\twaiting\t1\t2026-11-15T16:59:24Z\t2026-11-15T22:54:24Z\n";
  const std::string expired =
      "2001:db8::/64\t\"a "
      "b\"@x.example\tz@y.example\texpired\t2\t2026-11-13T16:54:24Z\t2026-11-14T16:54:24Z\n";
  EXPECT_EQ(Ask({"list"}).text, accepted + waiting + expired);
  EXPECT_EQ(Ask({"list", "--accepted"}).text, accepted);
  EXPECT_EQ(Ask({"list", "--waiting", "--expired"}).text, waiting + expired);
  EXPECT_EQ(Ask({"list", "192.0.2 *"}).text, accepted + waiting);
  EXPECT_EQ(Ask({"list", "*z@y.example", "*s@x*"}).text, accepted + expired);
  EXPECT_EQ(Ask({"list", "r@y.example"}).text, "");
  EXPECT_EQ(
      Ask({"list", "--json", "--waiting"}).text,
      "{\"network\":\"192.0.2\",\"sender\":\"\",\"recipient\":\"r@y.example\",\"state\":\"waiting\","
      "\"attempts\":1,\"delayed_until\":\"2026-11-15T16:59:24Z\",\"expires\":\"2026-11-15T22:54:24Z\"}\n");
}

TEST_F(GreyListToolTest, RefusesWhatItDoesNotKnow) {
  const struct {
    std::vector<std::string> arguments;
    std::string error;
  } rows[] = {
      {{}, "\"\" is none of list, show, delete, add, export, import and stats."},
      {{"lists"}, "\"lists\" is none of list, show, delete, add, export, import and stats."},
      {{"list", "--dry-run"}, "\"--dry-run\" is no option of \"list\"."},
      {{"list", "[a"}, "Invalid Regular Expression in string: \"[a\"."},
      {{"delete"}, "\"delete\" takes other arguments."},
      {{"export", "x"}, "\"export\" takes other arguments."},
      {{"show", "a", "b"}, "\"show\" takes other arguments."},
      {{"show", "a", "b", "c"}, "\"a\" is no IP address."},
      {{"add", "192.0.2", "b", "c"}, "\"192.0.2\" is no IP address."},
      {{"import", "x", "--merge", "--replace"}, "Only one of --merge and --replace is possible."},
  };
  for (const auto& row : rows) {
    const ControlAnswer answer = Ask(row.arguments);
    EXPECT_EQ(answer.status, exit_status::kBadCommandLine);
    EXPECT_EQ(answer.error, row.error);
  }
}

TEST_F(GreyListToolTest, ShowsWhatTheNextAttemptGets) {
  Fill();
  EXPECT_THAT(Ask({"show", "192.0.2.77", "S@x.example", "r@y.example"}).text,
              HasSubstr("\nnext attempt: accepted\n"));
  EXPECT_THAT(Ask({"show", "192.0.2.77", "<>", "r@y.example"}).text,
              HasSubstr("\nnext attempt: delayed before 2026-11-15T16:59:24Z, accepted from then on\n"));
  EXPECT_THAT(Ask({"show", "2001:db8::1", "\"a b\"@x.example", "z@y.example"}).text,
              HasSubstr("\nnext attempt: accepted\n"));
  settings_.MinCount = 4;
  EXPECT_THAT(
      Ask({"show", "192.0.2.77", "", "r@y.example"}).text,
      HasSubstr(
          "\nnext attempt: delayed; attempt 4 from now on is accepted, not before 2026-11-15T16:59:24Z\n"));
  const ControlAnswer none = Ask({"show", "192.0.3.77", "s@x.example", "r@y.example"});
  EXPECT_EQ(none.status, exit_status::kFailed);
  EXPECT_EQ(none.error, "There is no record of \"192.0.3 s@x.example r@y.example\".");
  EXPECT_FALSE(database_.Changed());
}

TEST_F(GreyListToolTest, DeletesWhatMatches) {
  Fill();
  EXPECT_EQ(Ask({"delete", "192.0.2 *", "--dry-run"}).text, "2 would be deleted\n");
  EXPECT_EQ(database_.Count(), 3U);
  EXPECT_FALSE(database_.Changed());
  EXPECT_EQ(Ask({"delete", "*nobody*"}).text, "0 deleted\n");
  EXPECT_FALSE(database_.Changed());
  EXPECT_EQ(Ask({"delete", "192.0.2 *"}).text, "2 deleted\n");
  EXPECT_EQ(database_.Count(), 1U);
  EXPECT_TRUE(database_.Changed());
}

TEST_F(GreyListToolTest, AddsAFirstContactOrAnAcceptedOne) {
  EXPECT_EQ(Ask({"add", "192.0.2.1", "S@x.example", "r@y.example"}).status, exit_status::kDone);
  EXPECT_TRUE(database_.Changed());
  EXPECT_EQ(Ask({"list"}).text,
            "192.0.2\ts@x.example\tr@y.example\twaiting\t1\t2026-11-15T17:04:24Z\t2026-11-16T04:54:24Z\n");
  EXPECT_EQ(Ask({"add", "192.0.2.9", "s@x.example", "r@y.example"}).error,
            "There is a record of \"192.0.2 s@x.example r@y.example\" already.");
  EXPECT_EQ(Ask({"add", "192.0.2.9", "s@x.example", "r@y.example", "--accepted"}).status, exit_status::kDone);
  EXPECT_EQ(Ask({"list"}).text,
            "192.0.2\ts@x.example\tr@y.example\taccepted\t1\t2026-11-15T17:04:24Z\t2026-12-15T16:54:24Z\n");
  EXPECT_EQ(database_.PendingCount(), 0U);
  EXPECT_EQ(Ask({"add", "192.0.3.9", "<>", "r", "--accepted"}).status, exit_status::kDone);
  EXPECT_EQ(Ask({"list", "192.0.3*"}).text,
            "192.0.3\t<>\tr\taccepted\t1\t2026-11-15T16:54:24Z\t2026-12-15T16:54:24Z\n");
}

TEST_F(GreyListToolTest, WhatIsExportedAndImportedElsewhereIsEqual) {
  Fill();
  database_.Add({"192.0.9 k\xE9y@x r\xC3\xA4@y", 46000.5, 45999.25, -7});
  const std::string exported = Ask({"export"}).text;
  EXPECT_THAT(exported,
              StartsWith("{\"network\":\"192.0.2\",\"sender\":\"s@x.example\",\"recipient\":\"r@y.example\","
                         "\"accepted\":true,\"attempts\":3,"));
  EXPECT_THAT(exported, HasSubstr("\"sender_hex\":\"6be97940"));
  for (const std::string mode : {"--merge", "--replace"}) {
    GreyListingDatabase other;
    EXPECT_EQ(AskOf(other, {"import", Path(exported), mode}).text, "4 read, 4 added, 0 changed, 0 deleted\n");
    EXPECT_EQ(AskOf(other, {"export"}).text, exported);
    EXPECT_TRUE(other.Changed());
    EXPECT_EQ(AskOf(other, {"import", Path(exported), mode}).text, "4 read, 0 added, 0 changed, 0 deleted\n");
  }
  EXPECT_THAT(holds_, ElementsAre(true, false, true, false, true, false, true, false));
}

// Exported times are whole seconds, those of records are not.
TEST_F(GreyListToolTest, WhatIsExportedAndImportedAgainChangesNothing) {
  constexpr double kDelayed = 46000;
  constexpr double kExpires = 46001;
  for (int number = 0; number < 10; ++number) {
    const double part = number / 10.0 / kSecondsPerDay;
    database_.Add({"192.0.9 a" + std::to_string(number) + "@x r@y", kExpires + part, kDelayed + part,
                   number % 2 == 0 ? -1 : 2});
  }
  const std::string exported = Ask({"export"}).text;
  for (const std::string mode : {"--merge", "--replace"}) {
    EXPECT_EQ(Ask({"import", Path(exported), mode}).text, "10 read, 0 added, 0 changed, 0 deleted\n");
  }
}

TEST_F(GreyListToolTest, MergeKeepsTheBetterOneOfEachKey) {
  const auto row = [](const std::string& accepted, int attempts, int delayed, int expires) {
    const auto time = [](int day) { return "\"2026-12-" + std::to_string(day) + "T00:00:00Z\""; };
    return "{\"network\":\"n\",\"sender\":\"s\",\"recipient\":\"r\",\"accepted\":" + accepted +
           ",\"attempts\":" + std::to_string(attempts) + ",\"delayed_until\":" + time(delayed) +
           ",\"expires\":" + time(expires) + "}\n";
  };
  const struct {
    std::string there, imported, merged;
  } rows[] = {
      {row("true", 1, 10, 11), row("false", 9, 12, 13), row("true", 1, 10, 11)},
      {row("false", 9, 12, 13), row("true", 1, 10, 11), row("true", 1, 10, 11)},
      {row("true", 1, 10, 12), row("true", 2, 11, 11), row("true", 1, 10, 12)},
      {row("true", 1, 10, 12), row("true", 2, 11, 13), row("true", 2, 11, 13)},
      {row("false", 1, 10, 12), row("false", 5, 11, 13), row("false", 5, 10, 12)},
      {row("false", 5, 11, 13), row("false", 1, 10, 12), row("false", 5, 10, 12)},
  };
  for (const auto& one : rows) {
    GreyListingDatabase database;
    AskOf(database, {"import", Path(one.there)});
    AskOf(database, {"import", Path(one.imported)});
    EXPECT_EQ(AskOf(database, {"export"}).text, one.merged);
    EXPECT_EQ(database.PendingCount(), one.merged.find("false") != std::string::npos ? 1U : 0U);
    AskOf(database, {"import", Path(one.imported), "--replace"});
    EXPECT_EQ(AskOf(database, {"export"}).text, one.imported);
    EXPECT_EQ(database.PendingCount(), one.imported.find("false") != std::string::npos ? 1U : 0U);
  }
}

TEST_F(GreyListToolTest, BadLineChangesNothing) {
  Fill();
  const std::string before = Ask({"export"}).text;
  const std::string good = R"({"network":"n","sender":"s","recipient":"r","accepted":true,"attempts":1,)"
                           R"("delayed_until":"2026-12-01T00:00:00Z","expires":"2026-12-01T00:00:00Z"})";
  const auto changed = [&](const std::string& from, const std::string& to) {
    std::string line = good;
    return line.replace(line.find(from), from.size(), to);
  };
  const struct {
    std::string line, error;
  } rows[] = {
      {"nonsense", "This is no JSON object of texts, whole numbers and truth values."},
      {"", "This is no JSON object of texts, whole numbers and truth values."},
      {changed("\"network\"", "\"net\""), "\"net\" is not known."},
      {changed("\"sender\":\"s\",", ""), "The text \"sender\" is missing."},
      {changed("true", "1"), "The truth value \"accepted\" is missing."},
      {changed("\"attempts\":1", "\"attempts\":0"), "The number \"attempts\" is missing or out of range."},
      {changed("\"attempts\":1", "\"attempts\":2147483648"),
       "The number \"attempts\" is missing or out of range."},
      {changed("2026-12-01T00:00:00Z", "2026-02-30T00:00:00Z"),
       "\"delayed_until\" is no time such as 2026-11-15T13:54:24Z."},
      {changed("\"sender\":\"s\"", "\"sender\":\"s s\""),
       "Network, sender and recipient cannot be told apart."},
      {changed("\"network\":\"n\"", "\"network\":\"\""),
       "Network, sender and recipient cannot be told apart."},
      {good, "This key is already associated with an element of this collection"},
  };
  for (const auto& row : rows) {
    for (const std::string mode : {"--merge", "--replace"}) {
      try {
        Ask({"import", Path(good + "\n" + row.line + "\n"), mode});
        ADD_FAILURE() << row.line;
      } catch (const Error& error) {
        EXPECT_EQ(error.Description(), "Line 2: " + row.error);
      }
    }
  }
  try {
    Ask({"import", folder_ / "missing"});
    ADD_FAILURE();
  } catch (const Error& error) {
    EXPECT_EQ(error.Description(), "\"" + (folder_ / "missing") + "\": File not found");
  }
  EXPECT_EQ(Ask({"export"}).text, before);
  EXPECT_FALSE(database_.Changed());
  EXPECT_THAT(holds_, ElementsAre());
}

// In slices, with records that come and go between them.
TEST_F(GreyListToolTest, GoesOnWhileRecordsComeAndGo) {
  const DateTime now = clock_.UniversalNow();
  for (int i = 0; i < 20000; ++i) database_.Add({"n" + std::to_string(i) + " s r", now + 1, now, 1});
  ControlReply reply =
      AnswerGreyList({.database = database_, .settings = settings_, .clock = clock_}, {"export"});
  const auto slices = std::get<ControlSlices>(reply);
  std::string text;
  int removed = 0;
  for (bool more = true; more;) {
    ControlAnswer slice;
    more = slices(slice);
    text += slice.text;
    // The one that would come next, and one that has come.
    const auto lines = static_cast<int>(std::count(text.begin(), text.end(), '\n'));
    removed += database_.Remove("n" + std::to_string(lines + removed) + " s r");
    database_.Remove("n" + std::to_string(lines / 2) + " s r");
  }
  EXPECT_GT(removed, 3);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 20000 - removed);
  ControlReply other =
      AnswerGreyList({.database = database_, .settings = settings_, .clock = clock_}, {"export"});
  database_.Clear();
  ControlAnswer slice;
  EXPECT_FALSE(std::get<ControlSlices>(other)(slice));
  EXPECT_EQ(slice.text, "");
}

// Whoever asked has gone when a part of the records is changed.
TEST_F(GreyListToolTest, ImportThatIsDroppedIsCompleted) {
  const std::string path = LongFile(20000);
  for (const bool begun : {false, true}) {
    holds_.clear();
    ControlReply reply = AnswerGreyList(Inputs(database_), {"import", path});
    ControlAnswer slice;
    while (database_.Count() == 0) {
      std::get<ControlSlices>(reply)(slice);
      if (!begun) break;
    }
    EXPECT_LT(database_.Count(), 20000U);
    reply = ControlAnswer{};
    EXPECT_EQ(database_.Count(), begun ? 20000U : 0U);
    EXPECT_EQ(holds_, begun ? (std::vector<bool>{true, false}) : std::vector<bool>{});
  }
}

// The records go elsewhere, which cannot wait.
TEST_F(GreyListToolTest, ImportThatChangesRecordsIsCompletedForASave) {
  const std::string path = LongFile(20000);
  const auto slices = std::get<ControlSlices>(AnswerGreyList(Inputs(database_), {"import", path}));
  ControlAnswer slice;
  while (database_.Count() == 0) ASSERT_TRUE(slices(slice));
  ASSERT_LT(database_.Count(), 20000U);
  std::exchange(complete_, nullptr)();
  EXPECT_EQ(database_.Count(), 20000U);
  EXPECT_THAT(holds_, ElementsAre(true, false));
  database_.Clear();
  ++loads_;
  while (slices(slice)) {
  }
  EXPECT_EQ(slice.text, "20000 read, 20000 added, 0 changed, 0 deleted\n");
  EXPECT_EQ(database_.Count(), 0U);
}

TEST_F(GreyListToolTest, AnswersEndWhenTheRecordsAreLoadedAnew) {
  const std::string path = LongFile(20000);
  AskOf(database_, {"import", path});
  for (const std::vector<std::string>& request :
       {std::vector<std::string>{"export"}, {"list"}, {"delete", "nothing"}, {"stats"}, {"import", path}}) {
    const auto slices = std::get<ControlSlices>(AnswerGreyList(Inputs(database_), request));
    ControlAnswer slice;
    ASSERT_TRUE(slices(slice)) << request[0];
    ++loads_;
    std::string error;
    try {
      for (int i = 0; i < 1000 && slices(slice); ++i) {
      }
    } catch (const Error& raised) {
      error = raised.Description();
    }
    EXPECT_EQ(error, "A reload has changed the database meanwhile.") << request[0];
  }
}

TEST_F(GreyListToolTest, ImportsChangeRecordsOneAfterAnother) {
  const std::string path = LongFile(20000);
  const auto first = std::get<ControlSlices>(AnswerGreyList(Inputs(database_), {"import", path}));
  const auto second =
      std::get<ControlSlices>(AnswerGreyList(Inputs(database_), {"import", path, "--replace"}));
  ControlAnswer slice;
  bool first_goes_on = true;
  for (bool second_goes_on = true; second_goes_on; second_goes_on = second(slice)) {
    if (first_goes_on) first_goes_on = first(slice);
  }
  EXPECT_FALSE(first_goes_on);
  EXPECT_EQ(database_.Count(), 20000U);
  EXPECT_THAT(holds_, ElementsAre(true, false, true, false));
}

// Not a byte of it counts, and no more of it is read.
TEST_F(GreyListToolTest, ImportEndsAtALineThatHasNoEnd) {
  const std::string path = Path(std::string(8 * 1024 * 1024, ' '));
  EXPECT_THROW(Ask({"import", path}), Error);
  EXPECT_LT(slices_, 10);
}

// What one slice does at most is what counts, not how long it takes on this machine.
TEST_F(GreyListToolTest, SlicesDoSoMuchAndNoMore) {
  const std::string path = LongFile(40000);
  const auto slices_of = [&](const std::vector<std::string>& request) {
    slices_ = 0;
    AskOf(database_, request);
    return slices_;
  };
  EXPECT_GE(slices_of({"import", path}), 18);
  EXPECT_GE(slices_of({"import", path, "--replace"}), 28);
  EXPECT_GE(slices_of({"list"}), 10);
  EXPECT_GE(slices_of({"list", "nothing"}), 10);
  EXPECT_GE(slices_of({"export"}), 10);
  EXPECT_GE(slices_of({"stats"}), 12);
  EXPECT_GE(slices_of({"delete", "*", "--dry-run"}), 10);
  EXPECT_GE(slices_of({"delete", "*"}), 10);
}

TEST_F(GreyListToolTest, CountsRecords) {
  Fill();
  EXPECT_EQ(
      Ask({"stats"}).text,
      "records\t3\naccepted\t1\nwaiting\t1\nexpired\t1\nyounger than an hour\t1\nyounger than a day\t0\n"
      "younger than a week\t2\nyounger than a month\t0\nyounger than a year\t0\nolder\t0\n"
      "network 192.0.2\t2\nnetwork 2001:db8::/64\t1\nrecipient r@y.example\t2\nrecipient z@y.example\t1\n");
  const DateTime now = clock_.UniversalNow();
  database_.Clear();
  for (int i = 0; i < 20; ++i) {
    for (int n = 0; n <= i; ++n) {
      database_.Add({"net" + std::to_string(i) + " s" + std::to_string(n) + " r", now + 1, now, 1});
    }
  }
  const std::string text = Ask({"stats"}).text;
  EXPECT_THAT(text, HasSubstr("\nnetwork net19\t20\nnetwork net18\t19\n"));
  EXPECT_THAT(text, HasSubstr("network net10\t11\nrecipient r\t210\n"));
}

TEST(GreyListDates, AreReadBack) {
  for (const std::string text : {"2026-11-15T13:54:24Z", "0100-01-01T00:00:00Z", "9999-12-31T23:59:59Z",
                                 "2024-02-29T12:00:01Z", "1899-12-29T06:30:00Z"}) {
    const auto time = ParseISODate(text);
    ASSERT_TRUE(time) << text;
    EXPECT_EQ(FormatISODate(*time), text);
  }
  for (const std::string text :
       {"", "2026-11-15T13:54:24", "2026-11-15 13:54:24Z", "2026-13-15T13:54:24Z", "2025-02-29T12:00:01Z",
        "2026-11-15T24:00:00Z", "0099-01-01T00:00:00Z", "2026-11-15T13:54:2xZ", "-026-11-15T13:54:24Z"}) {
    EXPECT_EQ(ParseISODate(text), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace trabex
