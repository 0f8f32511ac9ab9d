// Matching a text against long lists: the lists as they are against the scan from the first entry to the
// last, and the memory that a list of a million entries takes against that of plain containers.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "base/error.h"
#include "base/text.h"
#include "match/ip_range.h"
#include "match/mText.h"
#include "ratio_table.h"

namespace {

using namespace trabex;

constexpr int kMillion = 1000000;

// Addresses and domains like those of block lists: 8 to 30 bytes, no two alike.
std::string Address(int number, std::mt19937& random) {
  static const char* const kTops[] = {"test", "example", "example.test", "mail.example"};
  std::string name = "user" + std::to_string(number) + "@host";
  name.append(random() % 8, 'x').append(std::to_string(random() % 100000)).append(".");
  return name + kTops[random() % 4];
}

using MakePattern = std::string (*)(int number, std::mt19937& random);

const struct Kind {
  const char* name;
  MakePattern make;
} kKinds[] = {
    {"texts", [](int number, std::mt19937& random) { return Address(number, random); }},
    {"endings", [](int number, std::mt19937& random) { return "*" + Address(number, random).substr(4); }},
    // One in a hundred has to be tried.
    {"mixed",
     [](int number, std::mt19937& random) {
       const std::string address = Address(number, random);
       if (number % 100 == 0) return address.substr(0, address.find('@') - 1) + "#@*";
       return number % 2 == 0 ? address : "*" + address.substr(4);
     }},
    {"patterns",
     [](int number, std::mt19937& random) {
       const std::string address = Address(number, random);
       return "*@" + std::to_string(number) + address.substr(address.find('@') + 1) + ".*";
     }},
};

struct Lists {
  ExpressionList list;
  std::vector<ListEntry> entries;
  std::vector<std::string> texts;  // half of them match a plain entry, half nothing
};

Lists MakeLists(MakePattern make, int count) {
  std::mt19937 random(1);
  Lists lists;
  for (int number = 0; number < count; ++number) {
    const std::string pattern = make(number, random);
    lists.list.Add(pattern, {{pattern}, false});
    lists.entries.push_back({{pattern}, false});
  }
  for (int text = 0; text < 64; ++text) {
    std::string found = lists.entries[random() % lists.entries.size()].patterns.front();
    std::erase_if(found, [](char c) { return c == '*' || c == '#'; });
    lists.texts.push_back(text % 2 == 0 ? found : found + ".none");
  }
  return lists;
}

bool Scan(std::string_view text, const std::vector<ListEntry>& entries) {
  return std::any_of(entries.begin(), entries.end(),
                     [&](const ListEntry& entry) { return mText::MatchEntry(text, entry, false); });
}

void RegisterLists(const Kind& kind, int count) {
  const auto lists = std::make_shared<Lists>();
  const std::string name = std::string(kind.name) + "/" + std::to_string(count);
  const MakePattern make = kind.make;
  const auto fill = [lists, make, count] {
    if (lists->entries.empty()) *lists = MakeLists(make, count);
    lists->list.Contains("");
  };
  benchmark::RegisterBenchmark(("ours/" + name).c_str(), [lists, fill](benchmark::State& state) {
    fill();
    std::size_t text = 0;
    for (auto _ : state) benchmark::DoNotOptimize(lists->list.Contains(lists->texts[text++ % 64]));
  });
  benchmark::RegisterBenchmark(("peer/" + name).c_str(), [lists, fill](benchmark::State& state) {
    fill();
    std::size_t text = 0;
    for (auto _ : state) benchmark::DoNotOptimize(Scan(lists->texts[text++ % 64], lists->entries));
  });
}

using PlainRange = std::pair<std::uint32_t, std::uint32_t>;

// A call for each range, as a scan over a module's ranges makes it.
[[gnu::noinline]] bool Holds(const PlainRange& range, std::uint32_t ip) {
  return range.first <= ip && ip <= range.second;
}

void RegisterRanges(int count) {
  std::mt19937 random(2);
  std::vector<IPRange> ranges;
  std::vector<PlainRange> plain;
  for (int number = 0; number < count; ++number) {
    const auto low = static_cast<std::uint32_t>(random());
    plain.emplace_back(low, low | 0xFF);
    ranges.push_back({IPAddress::IPv4(low), IPAddress::IPv4(low | 0xFF)});
  }
  const std::string name = "ranges/" + std::to_string(count);
  benchmark::RegisterBenchmark(("ours/" + name).c_str(),
                               [list = IPRangeList(ranges)](benchmark::State& state) {
                                 std::uint32_t ip = 0;
                                 for (auto _ : state) {
                                   ip += 0x9E3779B9U;
                                   benchmark::DoNotOptimize(list.Contains(IPAddress::IPv4(ip)));
                                 }
                               });
  benchmark::RegisterBenchmark(("peer/" + name).c_str(), [plain](benchmark::State& state) {
    std::uint32_t ip = 0;
    for (auto _ : state) {
      ip += 0x9E3779B9U;
      benchmark::DoNotOptimize(std::any_of(plain.begin(), plain.end(),
                                           [ip](const PlainRange& range) { return Holds(range, ip); }));
    }
  });
}

// What a list would be in plain containers: the entries, and their keys to find one that comes again.
struct PlainList {
  std::vector<ListEntry> entries;
  std::unordered_set<std::string, HashNoCase, SameNoCase> keys;
  void Add(const std::string& key, ListEntry entry) {
    if (keys.insert(key).second) entries.push_back(std::move(entry));
  }
};

template <class List>
std::unique_ptr<List> MillionEntries(const Kind& kind) {
  std::mt19937 random(1);
  auto list = std::make_unique<List>();
  for (int number = 0; number < kMillion; ++number) {
    const std::string pattern = kind.make(number, random);
    list->Add(pattern, {{pattern}, false});
  }
  return list;
}

void RegisterAdding(const Kind& kind) {
  const std::string name = std::string("adding 1000000/") + kind.name;
  benchmark::RegisterBenchmark(("ours/" + name).c_str(), [kind](benchmark::State& state) {
    for (auto _ : state) MillionEntries<ExpressionList>(kind)->Contains("");
  })->Iterations(2);
  benchmark::RegisterBenchmark(("peer/" + name).c_str(), [kind](benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(MillionEntries<PlainList>(kind)->entries.size());
  })->Iterations(2);
}

double BytesInUse() {
  const struct mallinfo2 info = mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd);
}

template <class Make>
double BytesPerEntry(Make make) {
  const double before = BytesInUse();
  const auto list = make();
  const double bytes = BytesInUse() - before;
  benchmark::DoNotOptimize(list);
  return bytes / kMillion;
}

void PrintMemory() {
  std::printf("\n%-36s %14s %14s %12s\n", "memory of 1000000 entries", "ours (B each)", "plain (B each)",
              "text (B each)");
  for (const Kind& kind : kKinds) {
    std::mt19937 random(1);
    double text = 0;
    for (int number = 0; number < kMillion; ++number)
      text += static_cast<double>(kind.make(number, random).size());
    const double ours = BytesPerEntry([&] {
      auto list = MillionEntries<ExpressionList>(kind);
      list->Contains("");
      return list;
    });
    const double plain = BytesPerEntry([&] { return MillionEntries<PlainList>(kind); });
    std::printf("%-36s %14.1f %14.1f %12.1f\n", kind.name, ours, plain, text / kMillion);
  }
}

}  // namespace

int main(int argc, char** argv) {
  for (const Kind& kind : kKinds) {
    for (int count : {10, 1000, 100000}) RegisterLists(kind, count);
  }
  for (const Kind& kind : kKinds) {
    if (kind.name == std::string_view("mixed")) RegisterLists(kind, kMillion);
  }
  for (int count : {10, 1000, 100000}) RegisterRanges(count);
  for (const Kind& kind : kKinds) RegisterAdding(kind);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  trabex::bench::RatioTable table;
  benchmark::RunSpecifiedBenchmarks(&table);
  PrintMemory();
  return 0;
}
