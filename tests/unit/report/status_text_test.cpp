#include "report/status_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <regex>
#include <set>
#include <string>

#include "base/text.h"
#include "proxy/dialogue/command_table.h"

namespace trabex {
namespace {

// What the text holds, read by the rules of the format: every sample belongs to the family that was announced
// before it, families come once, and so do samples.
class ReadStatus {
 public:
  explicit ReadStatus(const std::string& text) {
    EXPECT_TRUE(text.ends_with('\n'));
    std::string family;
    std::string type;
    for (const std::string_view view : Split(std::string_view(text).substr(0, text.size() - 1), '\n')) {
      const std::string line(view);
      static const std::regex kHelp("# HELP ([a-z_]+) [^\\\\]+");
      static const std::regex kType("# TYPE ([a-z_]+) (counter|gauge|histogram)");
      static const std::regex kSample(
          "([a-z_]+)(\\{[a-z]+=\"[^\"\\\\]*\"(?:,[a-z]+=\"[^\"\\\\]*\")*\\})? ([0-9.e+-]+)");
      std::smatch match;
      if (std::regex_match(line, match, kHelp)) {
        family = match[1];
        EXPECT_TRUE(helped_.insert(family).second) << line;
        type.clear();
      } else if (std::regex_match(line, match, kType)) {
        EXPECT_EQ(match[1], family) << line;
        type = match[2];
        families_[family] = type;
        EXPECT_EQ(family.ends_with("_total"), type == "counter") << line;
      } else if (std::regex_match(line, match, kSample)) {
        const std::string name = match[1];
        const bool is_part = type == "histogram" && (name == family + "_bucket" || name == family + "_sum" ||
                                                     name == family + "_count");
        EXPECT_TRUE(is_part || (type != "histogram" && name == family)) << line;
        EXPECT_TRUE(samples.emplace(name + match[2].str(), match[3]).second) << line;
      } else {
        ADD_FAILURE() << line;
      }
    }
  }

  const std::map<std::string, std::string>& Families() const { return families_; }
  std::map<std::string, std::string> samples;

 private:
  std::set<std::string> helped_;
  std::map<std::string, std::string> families_;
};

StatusNow Nothing() {
  return {.version = "1.2.3"};
}

TEST(StatusText, HasEverySeriesFromTheStart) {
  const ReadStatus status(StatusText({}, Nothing()));
  const std::map<std::string, std::string> families = {
      {"trabex_build_info", "gauge"},
      {"trabex_start_time_seconds", "gauge"},
      {"trabex_sessions_open", "gauge"},
      {"trabex_sessions_peak", "gauge"},
      {"trabex_sessions_total", "counter"},
      {"trabex_sessions_ended_total", "counter"},
      {"trabex_replies_total", "counter"},
      {"trabex_server_replies_total", "counter"},
      {"trabex_messages_total", "counter"},
      {"trabex_recipients_total", "counter"},
      {"trabex_bytes_total", "counter"},
      {"trabex_greylisting_total", "counter"},
      {"trabex_greylisting_records", "gauge"},
      {"trabex_greylisting_saves_total", "counter"},
      {"trabex_greylisting_last_save_time_seconds", "gauge"},
      {"trabex_lookups_total", "counter"},
      {"trabex_lookup_seconds", "histogram"},
      {"trabex_server_connect_seconds", "histogram"},
      {"trabex_turn_seconds", "histogram"},
      {"trabex_server_connect_failures_total", "counter"},
      {"trabex_log_lines_lost_total", "counter"},
      {"trabex_reloads_total", "counter"},
      {"trabex_last_reload_success", "gauge"},
      {"trabex_configuration_errors", "gauge"},
      {"trabex_descriptors_open", "gauge"},
      {"trabex_descriptors_limit", "gauge"},
  };
  EXPECT_EQ(status.Families(), families);
  for (const auto& [series, value] : status.samples) {
    const bool is_one =
        series == "trabex_build_info{version=\"1.2.3\"}" || series == "trabex_last_reload_success";
    EXPECT_EQ(value, is_one ? "1" : "0") << series;
  }
  std::map<std::string, int> count;
  for (const auto& [series, value] : status.samples) ++count[series.substr(0, series.find('{'))];
  EXPECT_EQ(count["trabex_replies_total"], static_cast<int>(CountedReplies().size()));
  EXPECT_EQ(count["trabex_server_replies_total"], 4 * (static_cast<int>(AllCommands().size()) + 1));
  EXPECT_EQ(count["trabex_recipients_total"], 10);
  EXPECT_EQ(count["trabex_sessions_ended_total"], 8);
  EXPECT_EQ(count["trabex_lookup_seconds_bucket"], 15);
  for (const CommandRow& row : AllCommands()) {
    EXPECT_TRUE(status.samples.contains("trabex_server_replies_total{command=\"" + std::string(row.verb) +
                                        "\",class=\"2xx\"}"))
        << row.verb;
  }
}

TEST(StatusText, ShowsWhatWasCounted) {
  Counters counters;
  counters.sessions = {3, 4};
  counters.sessions_ended = {1, 2, 3, 4, 5, 6, 7, 8};
  counters.replies[CountedReplyIndex(ReplyKind::kBadSequence, "BadSeq.BDAT")] = 9;
  counters.server_replies[static_cast<std::size_t>(Command::kRcpt)][3] = 10;
  counters.server_replies[static_cast<std::size_t>(Command::kOther)][0] = 11;
  counters.recipients[1] = {1, 2, 3, 4, 5};
  counters.bytes = {{{100, 200}, {300, 400}}};
  counters.greylisting = {1, 2, 3, 4, 5, 6, 7};
  counters.lookups[1] = {1, 2, 3, 4};
  counters.server_connect_time.Observe(std::chrono::milliseconds(20));
  counters.last_reload_ok = false;
  StatusNow now = Nothing();
  now.bytes_open[0][1] = 1;
  now.log_lines_lost = {5, 6};
  now.start_time = 1795010064;
  ReadStatus status(StatusText(counters, now));
  const std::pair<std::string, std::string> wanted[] = {
      {"sessions_total{origin=\"local\"}", "3"},
      {"sessions_total{origin=\"remote\"}", "4"},
      {"sessions_ended_total{how=\"quit\"}", "1"},
      {"sessions_ended_total{how=\"shutdown\"}", "8"},
      {"replies_total{key=\"BadSeq.BDAT\",code=\"503\"}", "9"},
      {"server_replies_total{command=\"RCPT\",class=\"5xx\"}", "10"},
      {"server_replies_total{command=\"other\",class=\"2xx\"}", "11"},
      {"recipients_total{origin=\"remote\",result=\"server_deferred\"}", "5"},
      {"recipients_total{origin=\"local\",result=\"server_deferred\"}", "0"},
      {"bytes_total{side=\"client\",direction=\"out\"}", "201"},
      {"bytes_total{side=\"server\",direction=\"in\"}", "300"},
      {"greylisting_total{outcome=\"callback\"}", "7"},
      {"lookups_total{kind=\"address\",result=\"timeout\"}", "4"},
      {"server_connect_seconds_bucket{le=\"0.0005\"}", "0"},
      {"server_connect_seconds_bucket{le=\"0.01\"}", "0"},
      {"server_connect_seconds_bucket{le=\"0.025\"}", "1"},
      {"server_connect_seconds_bucket{le=\"+Inf\"}", "1"},
      {"server_connect_seconds_sum", "0.02"},
      {"server_connect_seconds_count", "1"},
      {"last_reload_success", "0"},
      {"log_lines_lost_total{log=\"json\"}", "6"},
      {"start_time_seconds", "1795010064"},
  };
  for (const auto& [series, value] : wanted) EXPECT_EQ(status.samples["trabex_" + series], value) << series;
}

TEST(StatusValue, IsThatOfASeriesOrTheSumOfAFamily) {
  Counters counters;
  counters.sessions = {3, 4};
  counters.server_connect_time.Observe(std::chrono::milliseconds(20));
  const std::string text = StatusText(counters, Nothing());
  EXPECT_EQ(StatusValue(text, "trabex_sessions_total{origin=\"local\"}"), "3");
  EXPECT_EQ(StatusValue(text, "sessions_total{origin=\"remote\"}"), "4");
  EXPECT_EQ(StatusValue(text, "sessions_total"), "7");
  EXPECT_EQ(StatusValue(text, "trabex_sessions_open"), "0");
  EXPECT_EQ(StatusValue(text, "server_connect_seconds_sum"), "0.02");
  EXPECT_EQ(StatusValue(text, "sessions"), std::nullopt);
  EXPECT_EQ(StatusValue(text, "sessions_total{origin=\"mars\"}"), std::nullopt);
  EXPECT_EQ(StatusValue(text, ""), std::nullopt);
}

}  // namespace
}  // namespace trabex
