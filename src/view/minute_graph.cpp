#include "view/minute_graph.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "view/totals_line.h"

namespace trabex {

namespace {

constexpr std::size_t kWide = 100;
constexpr std::size_t kHigh = 30;
constexpr std::size_t kVeryHigh = 45;

constexpr std::size_t kBarsAt = 10;  // the column
constexpr std::size_t kBehindAt = kBarsAt + MinuteHistory::kMinutes + 1;
constexpr std::size_t kBehindColumns = 9;

constexpr std::array<std::string_view, 9> kBlocks = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr std::array<std::string_view, 5> kPlainBlocks = {" ", ".", ":", "|", "#"};

// Of each of the two bar charts. Low ones have no line that says which time is where.
std::size_t ChartLines(std::size_t rows) {
  if (rows < kHigh) return 1;
  return rows < kVeryHigh ? 3 : 5;
}

struct Chart {
  std::string_view name;
  Look look;
};

void AppendChart(const Chart& chart, const std::vector<std::uint64_t>& counts, std::size_t lines, bool plain,
                 std::vector<ScreenLine>& graph) {
  const std::string max = "max " + ShortNumber(*std::max_element(counts.begin(), counts.end()));
  const std::string now = "now " + ShortNumber(counts.back());
  for (std::size_t i = 0; i < lines; ++i) {
    ScreenLine& line = graph.emplace_back();
    if (i == 0) Put(line, 0, chart.name, kBarsAt - 1);
    if (i == 1) Put(line, 0, "a minute", kBarsAt - 1);
    Put(line, kBarsAt, Bars(counts, i, lines, plain), MinuteHistory::kMinutes, chart.look);
    if (i == 0) Put(line, kBehindAt, max, kBehindColumns);
    // One line has room for both where the screen is wide, as it has to be for it.
    if (lines == 1) Put(line, kBehindAt + kBehindColumns, now + " a minute", 2 * kBehindColumns);
    if (lines > 1 && i == lines - 1) Put(line, kBehindAt, now, kBehindColumns);
  }
}

ScreenLine TimeLine() {
  std::string text(MinuteHistory::kMinutes, ' ');
  const auto put = [&text](std::size_t at, std::string_view word) { text.replace(at, word.size(), word); };
  put(0, "60 min ago");
  put(15, "45");
  put(30, "30");
  put(45, "15");
  put(57, "now");
  ScreenLine line;
  Put(line, kBarsAt, text, MinuteHistory::kMinutes);
  return line;
}

}  // namespace

std::size_t GraphLines(std::size_t columns, std::size_t rows) {
  if (columns < kWide && rows < kHigh) return 0;
  return 2 * ChartLines(rows) + (rows < kHigh ? 0 : 1);
}

std::string Bars(const std::vector<std::uint64_t>& counts, std::size_t line, std::size_t lines, bool plain) {
  const std::size_t steps = plain ? kPlainBlocks.size() - 1 : kBlocks.size() - 1;  // of a character
  const std::uint64_t max = std::max<std::uint64_t>(*std::max_element(counts.begin(), counts.end()), 1);
  const std::size_t below = (lines - 1 - line) * steps;
  std::string bars;
  for (const std::uint64_t count : counts) {
    const double part =
        static_cast<double>(count) / static_cast<double>(max) * static_cast<double>(lines * steps);
    auto height = static_cast<std::size_t>(part + 0.5);
    if (count > 0) height = std::max<std::size_t>(height, 1);
    const std::size_t step = std::min(height - std::min(height, below), steps);
    bars += plain ? kPlainBlocks[step] : kBlocks[step];
  }
  return bars;
}

std::vector<ScreenLine> MinuteGraph(const MinuteCounts& minutes, std::size_t columns, std::size_t rows,
                                    bool plain) {
  std::vector<ScreenLine> graph;
  if (GraphLines(columns, rows) == 0) return graph;
  std::vector<std::uint64_t> messages;
  std::vector<std::uint64_t> refusals;
  for (const MinuteHistory::Minute& minute : minutes) {
    messages.push_back(minute.messages);
    refusals.push_back(minute.refusals);
  }
  const std::size_t lines = ChartLines(rows);
  AppendChart({"Messages", {.colour = Colour::kGreen}}, messages, lines, plain, graph);
  AppendChart({"Refusals", {.colour = Colour::kRed}}, refusals, lines, plain, graph);
  if (rows >= kHigh) graph.push_back(TimeLine());
  return graph;
}

}  // namespace trabex
