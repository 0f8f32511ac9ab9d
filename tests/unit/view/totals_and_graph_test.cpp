#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "view/minute_graph.h"
#include "view/totals_line.h"

namespace trabex {
namespace {

TEST(TotalsLine, NumbersHaveFourCharactersAtMost) {
  struct Row {
    std::uint64_t number;
    std::string_view text;
  };
  const Row rows[] = {{0, "0"},
                      {9999, "9999"},
                      {10000, "10k"},
                      {999999, "999k"},
                      {1000000, "1.0M"},
                      {9949999, "9.9M"},
                      {9999999, "9.9M"},
                      {10000000, "10M"},
                      {999999999, "999M"},
                      {1000000000, "1.0G"},
                      {12000000000000, "12T"},
                      {~std::uint64_t{0}, "lots"}};
  for (const Row& row : rows) EXPECT_EQ(ShortNumber(row.number), row.text) << row.number;
}

TEST(TotalsLine, TakesTheLongestFormThatFits) {
  Totals totals;
  totals.open = 3;
  totals.peak = 12;
  totals.accepted = 120;
  totals.refused = 33;
  totals.delayed = 4;
  totals.messages = 88;
  totals.bytes = {{{1200000, 34567}, {1, 2}}};
  totals.server = ServerState::kUp;
  const ShownRows shown{.first = 1, .last = 3, .all = 3};
  EXPECT_EQ(TotalsLine(totals, shown, 200),
            "open 3, peak 12 | rows 1-3 of 3 | accepted 120, refused 33, delayed 4 | messages 88 | in 1.2M, "
            "out 34k | "
            "server up");
  EXPECT_EQ(TotalsLine(totals, shown, 100),
            "open 3 peak 12 rows 1-3/3 acc 120 ref 33 del 4 msg 88 in 1.2M out 34k server up");
  EXPECT_EQ(TotalsLine(totals, shown, 78), "open 3/12 1-3/3 acc 120 ref 33 del 4 msg 88 1.2M/34k up");
  totals.server = ServerState::kDown;
  EXPECT_TRUE(TotalsLine(totals, shown, 80).ends_with(" DOWN"));
  totals.server = ServerState::kUnknown;
  EXPECT_TRUE(TotalsLine(totals, shown, 80).ends_with(" ?"));
}

TEST(TotalsLine, FitsInto80ColumnsWithTheLargestNumbers) {
  Totals totals;
  totals.open = totals.peak = 9000;
  totals.accepted = totals.refused = totals.delayed = totals.messages = 999999;
  totals.bytes = {{{999999999, 999999999}, {0, 0}}};
  totals.server = ServerState::kDown;
  EXPECT_LE(TotalsLine(totals, {.first = 8981, .last = 9000, .all = 9000}, 80).size(), 80U);
}

TEST(MinuteGraph, IsThereFrom100ColumnsOr30Rows) {
  EXPECT_EQ(GraphLines(80, 24), 0U);
  EXPECT_EQ(GraphLines(99, 29), 0U);
  EXPECT_EQ(GraphLines(100, 24), 2U);
  EXPECT_EQ(GraphLines(80, 30), 7U);
  EXPECT_EQ(GraphLines(200, 50), 11U);
}

TEST(MinuteGraph, BarsReachAsHighAsTheLargestCount) {
  const std::vector<std::uint64_t> counts = {0, 1, 50, 100};
  EXPECT_EQ(Bars(counts, 0, 1, false), " \u2581\u2584\u2588");
  EXPECT_EQ(Bars(counts, 0, 1, true), " .:#");
  EXPECT_EQ(Bars(counts, 0, 2, true), "   #");
  EXPECT_EQ(Bars(counts, 1, 2, true), " .##");
  EXPECT_EQ(Bars({0, 0}, 0, 1, true), "  ");
}

}  // namespace
}  // namespace trabex
