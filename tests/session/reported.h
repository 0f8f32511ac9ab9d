// Sessions that are counted and recorded, for tests of both.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "base/text.h"
#include "report/counters.h"
#include "report/json_log.h"
#include "report/session_report.h"
#include "session/session_fixture.h"
#include "support/temp_folder.h"

namespace trabex {

inline ExpressionList Patterns(std::initializer_list<const char*> patterns) {
  ExpressionList list;
  for (const char* pattern : patterns) list.Add(pattern, {{pattern}, false});
  return list;
}

// Sessions with both reports.
class Reported {
 public:
  Reported() {
    fixture.Settings.Service.JsonLog = folder_ / "trabex.json";
    fixture.Observer = &report;
  }
  // The sessions that are left tell of their end.
  ~Reported() {
    fixture.Sessions().ForEach([](cProxy& session) { session.Close(); });
  }
  Reported(const Reported&) = delete;
  Reported& operator=(const Reported&) = delete;

  std::vector<std::string> Lines() {
    json.Flush();
    const std::string text = ReadFile(folder_ / "trabex.json");
    std::vector<std::string> lines;
    for (const std::string_view line : Split(text, '\n')) {
      if (!line.empty()) lines.emplace_back(line);
    }
    return lines;
  }
  // The lines of one event, from what follows the fields that every line of a session has.
  std::vector<std::string> Lines(const std::string& event) {
    std::vector<std::string> lines;
    for (const std::string& line : Lines()) {
      if (line.find("\"event\":\"" + event + "\"") == std::string::npos) continue;
      const std::size_t handle = line.find("\"client_handle\":");
      std::size_t rest = line.find(',', handle) + 1;
      if (line.compare(rest, 15, "\"server_handle\"") == 0) rest = line.find(',', rest) + 1;
      lines.push_back(line.substr(rest));
    }
    return lines;
  }
  std::uint64_t Replies(std::string_view key) const {
    std::uint64_t count = 0;
    for (std::size_t i = 0; i < CountedReplies().size(); ++i) {
      if (CountedReplies()[i].key == key) count += counters.replies[i];
    }
    return count;
  }
  std::uint64_t Ended(SessionEnd how) const { return counters.sessions_ended[static_cast<std::size_t>(how)]; }

  TempFolder folder_;
  SessionFixture fixture;
  RecordedLog log;
  Counters counters;
  JsonLog json{fixture.Settings, fixture.Time, fixture.Loop, log};
  SessionReport report{counters, json, fixture.Time};
};

// The clients are remote ones.
inline void Remote(Reported& test) {
  test.fixture.Settings.LocalIPs = IPRangeList();
  test.fixture.Settings.LocalDomains = Patterns({"local.test"});
}

}  // namespace trabex
