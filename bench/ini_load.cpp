// Loading initialization files with very long lists, in every way in which they can be long: time per entry
// at 1000000 entries against that at 100000, whose ratio is 1 where time grows in proportion, and the memory
// that the loaded configuration keeps.
#include <malloc.h>
#include <time.h>

#include <cstdio>
#include <memory>
#include <string>

#include "config/configuration.h"
#include "config/configuration_dump.h"
#include "config/early_keys.h"
#include "config/ini_reader.h"
#include "config/read_settings.h"
#include "match/ip_range.h"

namespace {

using namespace trabex;

// Reports cost what they cost to make.
class CountingLog final : public Log {
 public:
  void LogLine(std::string_view message) override { bytes_ += message.size(); }
  std::size_t bytes_ = 0;
};

std::string Address(int number) {
  return "user" + std::to_string(number) + "@host" + std::to_string(number % 1000) + ".example.test";
}

template <class Entry>
std::string Lines(const std::string& head, int count, Entry entry) {
  std::string text;
  for (int number = 0; number < count; ++number) text += head + entry(number) + "\n";
  return text;
}

template <class Entry>
std::string OneLine(const std::string& head, int count, Entry entry) {
  std::string text = head;
  for (int number = 0; number < count; ++number) text += (number == 0 ? "" : ",") + entry(number);
  return text + "\n";
}

const struct Shape {
  const char* name;
  std::string (*text)(int count);
} kShapes[] = {
    {"addresses, a line each",
     [](int count) { return "[Common]\n" + Lines("SendersBlackList=", count, Address); }},
    {"addresses, one line",
     [](int count) { return "[Common]\n" + OneLine("SendersBlackList=", count, Address); }},
    {"quoted addresses, one line",
     [](int count) {
       return "[Common]\n" +
              OneLine("SendersBlackList=", count, [](int number) { return "\"" + Address(number) + "\""; });
     }},
    {"groups, one line",
     [](int count) {
       return "[Common]\n" + OneLine("SendersBlackList=", count, [](int number) {
                return Address(number) + " *" + std::to_string(number) + "*";
              });
     }},
    {"duplicates, a line each",
     [](int count) {
       return "[Common]\n" +
              Lines("SendersBlackList=", count, [](int number) { return Address(number % 10); });
     }},
    {"duplicates, one line",
     [](int count) {
       return "[Common]\n" +
              OneLine("SendersBlackList=", count, [](int number) { return Address(number % 10); });
     }},
    {"bad patterns, one line",
     [](int count) {
       return "[Common]\n" +
              OneLine("SendersBlackList=", count, [](int number) { return Address(number) + "["; });
     }},
    {"IP addresses, a line each",
     [](int count) {
       return "[Common]\n" + Lines("IPBlackList=", count, [](int number) {
                return FormatIPAddress(IPAddress::IPv4(static_cast<std::uint32_t>(number) * 2654435761U));
              });
     }},
    {"IP addresses, one line",
     [](int count) {
       return "[Common]\n" + OneLine("IPBlackList=", count, [](int number) {
                return FormatIPAddress(IPAddress::IPv4(static_cast<std::uint32_t>(number) * 2654435761U));
              });
     }},
    {"IP duplicates, one line",
     [](int count) {
       return "[Common]\n" + OneLine("IPBlackList=", count,
                                     [](int number) { return "10.0.0." + std::to_string(number % 256); });
     }},
    {"extensions, one line",
     [](int count) {
       return "[Common]\n" + OneLine("AddSMTPExtensionsLocal=", count,
                                     [](int number) { return "X" + std::to_string(number) + " a b"; });
     }},
    {"response keys",
     [](int count) {
       return "[ResponseChanges]\n" +
              Lines("", count, [](int number) { return "RCPT.Private." + Address(number) + "=<a>=<b>"; });
     }},
    {"rules of one response key",
     [](int count) {
       return "[ResponseChanges]\n" +
              Lines("550=", count, [](int number) { return "<" + std::to_string(number) + ">=<b>"; });
     }},
    {"replacements",
     [](int count) {
       return "[SenderReplacements.Local]\n" +
              Lines("", count, [](int number) { return Address(number) + "=x@y.test"; });
     }},
    {"unknown keys",
     [](int count) {
       return "[Common]\n" + Lines("", count, [](int number) { return Address(number) + "=1"; });
     }},
    {"bad lines", [](int count) { return "[Common]\n" + Lines("", count, Address); }},
};

void Load(std::string text, Configuration& configuration, CountingLog& log) {
  const SettingContext context{.program_directory = "/", .local_host_name = [] { return std::string("h"); }};
  const IniErrors errors{log, true};
  ReadEarlyKeysFromText(text, {}, configuration, log);
  SectionStore store;
  mCommon::ReadIniText("x.ini", std::move(text), store, errors);
  ReadSettings(store, errors, context, configuration);
}

double CpuNanoseconds() {
  struct timespec now {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

// Processor time; the best of some runs, so that what else the machine does counts less.
template <class Run>
double NanosecondsPerEntry(int count, Run run) {
  double best = 0;
  for (int round = 0; round < (count > 500000 ? 2 : 5); ++round) {
    const double begin = CpuNanoseconds();
    run();
    const double taken = CpuNanoseconds() - begin;
    if (round == 0 || taken < best) best = taken;
  }
  return best / count;
}

double BytesInUse() {
  const struct mallinfo2 info = mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd);
}

double BytesKept(const std::string& text, int count) {
  const double before = BytesInUse();
  CountingLog log;
  const auto configuration = std::make_unique<Configuration>(DefaultConfiguration());
  Load(text, *configuration, log);
  return (BytesInUse() - before) / count;
}

void Measure(const Shape& shape) {
  constexpr int kFew = 100000;
  constexpr int kMany = 1000000;
  double load[2];
  double dump[2];
  double bytes = 0;
  double text_bytes = 0;
  int index = 0;
  for (int count : {kFew, kMany}) {
    const std::string text = shape.text(count);
    CountingLog log;
    Configuration configuration = DefaultConfiguration();
    load[index] = NanosecondsPerEntry(count, [&] {
      configuration = DefaultConfiguration();
      Load(text, configuration, log);
    });
    configuration.Log = 2;
    dump[index] = NanosecondsPerEntry(count, [&] {
      mCommon::LogConfiguration(configuration, "x.ini", log,
                                [&](std::string_view line) { log.LogLine(line); });
    });
    configuration = DefaultConfiguration();
    bytes = BytesKept(text, count);
    text_bytes = static_cast<double>(text.size()) / count;
    ++index;
  }
  std::printf("%-28s %10.0f %10.0f %7.2f", shape.name, load[0], load[1], load[1] / load[0]);
  if (bytes > 1) {
    std::printf(" %10.0f %10.0f %7.2f", dump[0], dump[1], dump[1] / dump[0]);
  } else {
    std::printf(" %10s %10s %7s", "-", "-", "-");  // no entry was kept
  }
  std::printf(" %9.1f %9.1f\n", text_bytes, bytes);
  std::fflush(stdout);
}

}  // namespace

int main() {
  std::printf("%-28s %10s %10s %7s %10s %10s %7s %9s %9s\n", "", "load (ns", "each)", "", "dump (ns", "each)",
              "", "text (B", "kept (B");
  std::printf("%-28s %10s %10s %7s %10s %10s %7s %9s %9s\n", "entries", "100000", "1000000", "ratio",
              "100000", "1000000", "ratio", "each)", "each)");
  for (const Shape& shape : kShapes) Measure(shape);
  return 0;
}
