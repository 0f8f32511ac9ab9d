// A greylisting database of a million records: how long it takes to load, what memory a record takes, and how
// long an iteration of the loop gets while the database is saved and mail goes on. Then a flood of new
// triples at the bounds: how much longer one takes among many pending ones than among few. Each figure has a
// limit of its own and is shown beside a peer: plain reading and std::unordered_map, and a loop that saves
// nothing.
//
//   bench_greylist [folder for the files, default "."] [records, default 1000000]
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <unordered_map>

#include "greylist/database_file.h"
#include "greylist/greylisting_store.h"
#include "greylist/mGreyListing.h"
#include "platform/clock.h"
#include "platform/event_loop.h"

namespace {

using namespace trabex;
using SteadyClock = std::chrono::steady_clock;

double Milliseconds_(SteadyClock::duration span) {
  return std::chrono::duration<double, std::milli>(span).count();
}

template <class Action>
double TimeOf(Action action) {
  const auto start = SteadyClock::now();
  action();
  return Milliseconds_(SteadyClock::now() - start);
}

std::size_t HeapInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

// Resident memory of this process.
std::size_t Resident() {
  std::ifstream file("/proc/self/statm");
  std::size_t total = 0;
  std::size_t resident = 0;
  file >> total >> resident;
  return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

// Triples as mail brings them: addresses of 12 to 40 bytes. Made anew from their number each time, because
// memory of the benchmark's own would count as that of the program (forking takes the longer the more there
// is).
struct Triple {
  IPAddress ip;
  std::string sender;
  std::string recipient;

  std::string Key() const { return FormatIPv4Parts(ip, 3) + " " + sender + " " + recipient; }
};

Triple MakeTriple(std::size_t number) {
  static constexpr std::array kHosts = {"example.test", "mail.example.test", "newsletter.shop.example",
                                        "a-somewhat-longer-domain.example", "uni.test"};
  const std::uint64_t mixed = (number + 1) * 0x9E3779B97F4A7C15;
  const auto part = [mixed](int shift, std::uint64_t below) { return (mixed >> shift) % below; };
  Triple triple;
  triple.ip = IPAddress::IPv4(
      static_cast<std::uint32_t>((1 + part(56, 223)) << 24 | part(48, 256) << 16 | part(40, 256) << 8 | 9));
  triple.sender = "sender" + std::to_string(number) + "@" + kHosts[part(32, kHosts.size())];
  triple.recipient = "user" + std::to_string(part(16, 5000)) + "@local.test";
  return triple;
}

class PrintedLog final : public Log {
 public:
  void LogLine(std::string_view message) override {
    std::printf("log: %.*s\n", static_cast<int>(message.size()), message.data());
  }
};

class SilentLog final : public Log {
 public:
  void LogLine(std::string_view) override {}
};

bool all_kept = true;

void Print(const char* what, double ours, const char* unit, double limit, double peer, const char* peer_is) {
  const bool kept = ours <= limit;
  all_kept = all_kept && kept;
  std::printf("%-34s %9.1f %-5s limit %6.0f  %-6s %9.1f %s (ours / peer %.2f)\n", what, ours, unit, limit,
              kept ? "kept" : "BROKEN", peer, peer_is, peer > 0 ? ours / peer : 0);
}

// The peer of loading: the whole file in one read, and its keys (made, not found in it) into the standard
// map.
struct PlainValue {
  double expire_at;
  double delayed_until;
  std::int32_t count;
};
using PlainMap = std::unordered_map<std::string, PlainValue>;

PlainMap PlainLoad(const std::string& path, std::size_t records) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  std::string content(static_cast<std::size_t>(file.tellg()), '\0');
  file.seekg(0);
  file.read(content.data(), static_cast<std::streamsize>(content.size()));
  PlainMap map;
  map.reserve(records);
  for (std::size_t i = 0; i < records; ++i) map.emplace(MakeTriple(i).Key(), PlainValue{1, 2, 3});
  return map;
}

// --- a flood at the bounds

constexpr std::size_t kFewPending = 10000;
constexpr std::size_t kManyPending = 500000;

// What a check takes that finds `pending` records and the bound reached, so that the oldest has to go, in
// nanoseconds: the better of two rounds. `one_network`: all of one network, whose own bound it is.
double NewTripleAt(std::size_t pending, bool one_network) {
  GreyListingSettings settings = DefaultConfiguration().GreyListing;
  settings.HostsBlackList = {};
  settings.Delay = 16 / kMinutesPerDay;
  settings.ShortTTL = 240 / kMinutesPerDay;
  (one_network ? settings.MaxPendingPerNetwork : settings.MaxPending) = static_cast<std::int32_t>(pending);
  (one_network ? settings.MaxPending : settings.MaxPendingPerNetwork) = 10000000;
  SystemClock clock;
  EventLoop loop(clock);
  SilentLog log;
  GreyListingDatabase database;
  PendingWarning warning(log, loop);
  mGreyListing grey(settings, log, clock, database, warning);
  std::size_t number = 0;
  const auto check = [&] {
    Triple triple = MakeTriple(number++);
    if (one_network) triple.ip = IPAddress::IPv4(0xC0000209);
    return TimeOf([&] { grey.GreyListingCheck("mail.test", triple.ip, triple.sender, triple.recipient); });
  };
  while (number < pending) check();
  double best_ms = 1e9;
  for (int round = 0; round < 2; ++round) {
    double ms = 0;
    for (int i = 0; i < 200000; ++i) ms += check();
    best_ms = std::min(best_ms, ms);
  }
  if (database.PendingCount() != pending) std::printf("%zu records are pending\n", database.PendingCount());
  return best_ms * 1e6 / 200000;
}

// The peer: a standard map and the order of arrival beside it.
double PlainNewTripleAt(std::size_t pending) {
  PlainMap map;
  std::deque<std::string> order;
  std::size_t number = 0;
  const auto add = [&] {
    const Triple triple = MakeTriple(number++);
    return TimeOf([&] {
      std::string key = triple.Key();
      if (map.size() == pending) {
        map.erase(order.front());
        order.pop_front();
      }
      order.push_back(key);
      map.emplace(std::move(key), PlainValue{1, 2, 3});
    });
  };
  while (number < pending) add();
  double best_ms = 1e9;
  for (int round = 0; round < 2; ++round) {
    double ms = 0;
    for (int i = 0; i < 200000; ++i) ms += add();
    best_ms = std::min(best_ms, ms);
  }
  return best_ms * 1e6 / 200000;
}

// Runs iterations of the loop, each with the checks of a busy server, while `more()`. The longest one and
// their number.
struct Iterations {
  double longest_ms = 0;
  std::size_t count = 0;
  double total_ms = 0;
};

template <class More>
Iterations RunIterations(EventLoop& loop, mGreyListing& grey, std::size_t records, std::mt19937& random,
                         More more) {
  Iterations iterations;
  const auto start = SteadyClock::now();
  while (more()) {
    const double iteration = TimeOf([&] {
      for (int i = 0; i < 20; ++i) {
        const Triple triple = MakeTriple(random() % records);
        grey.GreyListingCheck("mail.test", triple.ip, triple.sender, triple.recipient);
      }
      loop.RunOnce(Milliseconds{0});
    });
    iterations.longest_ms = std::max(iterations.longest_ms, iteration);
    ++iterations.count;
  }
  iterations.total_ms = Milliseconds_(SteadyClock::now() - start);
  return iterations;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string folder = argc > 1 ? argv[1] : ".";
  const std::size_t records = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 1000000;
  const std::string path = folder + "/bench_greylist.gldb";

  std::mt19937 random(1);
  GreyListingSettings settings = DefaultConfiguration().GreyListing;
  settings.HostsBlackList = {};
  settings.Database = path;
  settings.Delay = 16 / kMinutesPerDay;
  settings.ShortTTL = 240 / kMinutesPerDay;
  settings.TTL = 36;
  settings.MinCount = 1;
  PrintedLog log;
  SystemClock clock;
  EventLoop loop(clock);
  GreyListingDatabase database;
  PendingWarning warning(log, loop);
  mGreyListing grey(settings, log, clock, database, warning);
  GreyListingStore store(settings, log, clock, loop, database, warning);

  std::size_t key_bytes = 0;
  double check_ms = 0;
  for (std::size_t i = 0; i < records; ++i) {
    const Triple triple = MakeTriple(i);
    key_bytes += triple.Key().size();
    check_ms +=
        TimeOf([&] { grey.GreyListingCheck("mail.test", triple.ip, triple.sender, triple.recipient); });
    // As many are pending as the default bound permits: half a million.
    if (i % 2 == 0) {
      cGreyListingData* record = database.Find(triple.Key());
      record->SetCount(2);
      database.Accepted(*record);
    }
  }
  std::printf("%zu records, keys of %.1f bytes on average, a new triple takes %.0f ns\n", database.Count(),
              static_cast<double>(key_bytes) / static_cast<double>(records),
              check_ms * 1e6 / static_cast<double>(records));
  const double complete_ms = TimeOf([&] { store.SaveGreyListingDatabase(); });

  // Loading, best of three each, and the memory of what was loaded.
  double load_ms = 1e9;
  double plain_ms = 1e9;
  double per_record = 0;
  double resident_per_record = 0;
  double plain_per_record = 0;
  const auto each = [records](std::size_t after, std::size_t before) {
    return (static_cast<double>(after) - static_cast<double>(before)) / static_cast<double>(records);
  };
  for (int round = 0; round < 3; ++round) {
    database.Clear();
    malloc_trim(0);
    const std::size_t heap = HeapInUse();
    const std::size_t resident = Resident();
    load_ms = std::min(load_ms, TimeOf([&] { store.LoadGreyListingDatabase(); }));
    per_record = each(HeapInUse(), heap);
    resident_per_record = each(Resident(), resident);
  }
  for (int round = 0; round < 3; ++round) {
    malloc_trim(0);
    const std::size_t heap = HeapInUse();
    std::optional<PlainMap> map;
    plain_ms = std::min(plain_ms, TimeOf([&] { map = PlainLoad(path, records); }));
    plain_per_record = each(HeapInUse(), heap);
  }
  if (database.Count() != records) {
    std::printf("only %zu records came back\n", database.Count());
    return 1;
  }
  Print("load", load_ms, "ms", 1500, plain_ms, "ms to read it and fill an unordered_map");
  Print("memory per record, allocated", per_record, "bytes", 250, plain_per_record, "bytes in unordered_map");
  Print("memory per record, resident", resident_per_record, "bytes", 250, plain_per_record,
        "bytes in unordered_map");

  // Saving in the background while mail goes on, against the same mail without a save; three rounds each, of
  // which the best counts, as other programs disturb the others. A third of the records has expired each
  // time, so that the sweep has work too.
  double longest_ms = 1e9;
  double idle_ms = 1e9;
  for (std::size_t round = 0; round < 3; ++round) {
    for (std::size_t i = round; i < records; i += 3) {
      cGreyListingData* record = database.Find(MakeTriple(i).Key());
      if (record != nullptr) record->SetExpireAt(clock.UniversalNow() - 1);
    }
    database.SetChanged(true);
    bool done = false;
    double save_ms = 0;
    double begin_ms = 0;
    const auto start = SteadyClock::now();
    begin_ms = TimeOf([&] {
      store.SaveInBackground([&](const GreyListingSaveResult& result) {
        done = true;
        save_ms = Milliseconds_(SteadyClock::now() - start);
        if (result.kind != GreyListingSaveResult::Kind::kSaved) std::printf("the save failed\n");
      });
    });
    // The sweep takes some hundred iterations more.
    int after = 0;
    const Iterations saving =
        RunIterations(loop, grey, records, random, [&] { return !done || after++ < 1000; });
    longest_ms = std::min(longest_ms, std::max(saving.longest_ms, begin_ms));
    const auto idle_end = SteadyClock::now() + std::chrono::milliseconds(static_cast<int>(saving.total_ms));
    const Iterations idle =
        RunIterations(loop, grey, records, random, [&] { return SteadyClock::now() < idle_end; });
    idle_ms = std::min(idle_ms, idle.longest_ms);
    std::printf("save %zu: %.0f ms, %.1f ms of it to begin; %zu iterations meanwhile, the longest %.1f ms\n",
                round + 1, save_ms, begin_ms, saving.count, saving.longest_ms);
  }
  std::printf("a save in place takes %.0f ms\n", complete_ms);
  Print("longest iteration while saving", longest_ms, "ms", 50, idle_ms, "ms without a save");

  database.Clear();
  malloc_trim(0);
  const double plain_ratio = PlainNewTripleAt(kManyPending) / PlainNewTripleAt(kFewPending);
  for (const bool one_network : {false, true}) {
    const double few = NewTripleAt(kFewPending, one_network);
    const double many = NewTripleAt(kManyPending, one_network);
    std::printf("a new triple at the bound %s: %.0f ns among %zu pending ones, %.0f ns among %zu\n",
                one_network ? "of its network" : "of all", few, kFewPending, many, kManyPending);
    Print(one_network ? "many / few pending, network's bound" : "many / few pending, bound of all",
          many / few, "times", 8, plain_ratio, "times in unordered_map");
  }
  for (const char* end : {"", "bak"}) std::remove((path + end).c_str());
  return all_kept ? 0 : 1;
}
