// The long answers of a running instance, with a million greylisting records, or a million entries in a list: how long
// the longest slice takes, and the end of an answer, when what it has needed is freed. Each of them is a part of one
// turn of the loop, for which the mail waits; a turn has 50 milliseconds at most.
//
//   bench_answers [folder for a file, default "."] [count, default 1000000]
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "app/greylist_tool.h"
#include "app/instance_requests.h"
#include "base/date_time.h"
#include "base/error.h"
#include "base/ip_address.h"
#include "base/log.h"
#include "config/ini_reader.h"
#include "config/read_settings.h"
#include "platform/clock.h"

namespace {

using namespace trabex;

// Of processor time, so that what else the machine does counts less.
double Milliseconds_() {
  struct timespec now {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

// Takes the whole answer and prints its row. `out` gets its text.
void Measure(const char* name, const std::function<ControlReply()>& ask, std::ostream* out = nullptr) {
  double start = Milliseconds_();
  ControlReply reply = ask();
  double longest = Milliseconds_() - start;
  double all = longest;
  int slices = 0;
  std::string said;
  for (bool more = true; more; ++slices) {
    ControlAnswer slice;
    start = Milliseconds_();
    try {
      more = std::get<ControlSlices>(reply)(slice);
    } catch (const Error& error) {
      more = false;
      said = error.Description();
    }
    const double taken = Milliseconds_() - start;
    longest = std::max(longest, taken);
    all += taken;
    if (out != nullptr) *out << slice.text;
  }
  start = Milliseconds_();
  reply = ControlAnswer{};
  const double end = Milliseconds_() - start;
  std::printf("%-34s %8d %10.1f %10.1f %10.0f  %s\n", name, slices, longest, end, all + end,
              std::max(longest, end) < 50 ? "" : "TOO LONG");
  if (!said.empty()) std::printf("    %s\n", said.c_str());
  std::fflush(stdout);
}

void Fill(GreyListingDatabase& database, int count, DateTime now) {
  for (int number = 0; number < count; ++number) {
    database.Add({"10." + std::to_string(number >> 8 & 255) + "." + std::to_string(number & 255) + " sender" +
                      std::to_string(number) + "@some.example.test rcpt" + std::to_string(number) +
                      "@example.test",
                  now + 30, now, number % 2 == 0 ? 1 : -1});
  }
}

void MeasureGreyListing(const std::string& folder, int count) {
  const SystemClock clock;
  GreyListingDatabase database;
  Configuration configuration = DefaultConfiguration();
  GreyListingSettings& settings = configuration.GreyListing;
  settings.MaxPending = settings.MaxPendingPerNetwork = 2'000'000'000;
  Fill(database, count, clock.UniversalNow());
  const std::string path = folder + "/bench_answers.jsonl";
  const auto ask = [&](std::vector<std::string> arguments) {
    return [&, arguments] {
      return AnswerGreyList({.database = database, .settings = settings, .clock = clock}, arguments);
    };
  };
  Measure("list", ask({"list"}));
  Measure("list --json", ask({"list", "--json"}));
  Measure("list, a pattern that none matches", ask({"list", "*x*y*z@nowhere"}));
  Measure("stats", ask({"stats"}));
  {
    std::ofstream file(path);
    Measure("export", ask({"export"}), &file);
  }
  Measure("import, nothing new", ask({"import", path}));
  Measure("import --replace", ask({"import", path, "--replace"}));
  Measure("delete --dry-run", ask({"delete", "*", "--dry-run"}));
  Measure("delete", ask({"delete", "*"}));
  Measure("import, all new", ask({"import", path}));
  std::ofstream(path, std::ios::app) << "{}\n";
  Measure("import with a bad last line", ask({"import", path}));
  std::filesystem::remove(path);
}

class NoLog final : public Log {
 public:
  void LogLine(std::string_view /*message*/) override {}
};

void MeasureDump(const char* name, int count, const std::function<std::string(int)>& line) {
  std::string text = "[Common]\n";
  for (int number = 0; number < count; ++number) text += line(number) + "\n";
  NoLog log;
  const IniErrors errors{log, true};
  SectionStore store;
  mCommon::ReadIniText("x.ini", std::move(text), store, errors);
  Configuration configuration = DefaultConfiguration();
  ReadSettings(store, errors, {.program_directory = "/", .local_host_name = [] { return std::string("h"); }},
               configuration);
  Measure(name, [&]() -> ControlReply { return DumpInSlices(configuration, "x.ini"); });
}

}  // namespace

int main(int argc, char** argv) {
  const std::string folder = argc > 1 ? argv[1] : ".";
  const int count = argc > 2 ? std::atoi(argv[2]) : 1'000'000;
  std::printf("%-34s %8s %10s %10s %10s\n", "milliseconds", "slices", "longest", "end", "in all");
  MeasureGreyListing(folder, count);
  MeasureDump("dump, addresses of mail", count,
              [](int number) { return "SendersBlackList=user" + std::to_string(number) + "@example.test"; });
  MeasureDump("dump, groups of patterns", count, [](int number) {
    return "SendersBlackList=user" + std::to_string(number) + "* *example.test";
  });
  MeasureDump("dump, IP addresses", count, [](int number) {
    return "IPBlackList=" +
           FormatIPAddress(IPAddress::IPv4(static_cast<std::uint32_t>(number) * 2654435761U));
  });
  return 0;
}
