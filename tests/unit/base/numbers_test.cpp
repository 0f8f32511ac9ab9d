#include "base/numbers.h"

#include <gtest/gtest.h>

#include <optional>

namespace trabex {
namespace {

TEST(ParseInteger, ReadsWholeNumbers) {
  const struct {
    const char* text;
    std::optional<std::int32_t> value;
  } rows[] = {
      {"25", 25},
      {" +25 ", 25},
      {"-7", -7},
      {"0025", 25},
      {"2.5", 2},
      {"3.5", 4},
      {"2.51", 3},
      {"-2.5", -2},
      {"7.", 7},
      {"2147483647", 2147483647},
      {"-2147483648", -2147483647 - 1},
      {"2147483647.4", 2147483647},
      {"2147483647.5", std::nullopt},
      {"2147483648", std::nullopt},
      {"99999999999999999999999999999999999999999999", std::nullopt},
      {"", std::nullopt},
      {" ", std::nullopt},
      {"+", std::nullopt},
      {".5", std::nullopt},
      {"1e3", std::nullopt},
      {"0x10", std::nullopt},
      {"1,000", std::nullopt},
      {"1 0", std::nullopt},
      {"- 1", std::nullopt},
      {"25\t", std::nullopt},
  };
  for (const auto& row : rows) EXPECT_EQ(ParseInteger(row.text), row.value) << "\"" << row.text << "\"";
}

TEST(ParseFixedPoint, KeepsFourPlaces) {
  const struct {
    const char* text;
    std::int64_t multiplier;
    std::optional<FixedPoint> value;
  } rows[] = {
      {"1.5", 1024, 15360000},
      {"2", 1073741824, 21474836480000},
      {"0.00005", 1, 0},
      {"0.00015", 1, 2},
      {"0.000151", 1, 2},
      {"-2", 1, -20000},
      {"922337203685477", 1, 9223372036854770000},
      {"922337203685478", 1, std::nullopt},
      {"922337203685477", 1024, std::nullopt},
      {"99999999999999999999", 1073741824, std::nullopt},
      {"5X", 1, std::nullopt},
  };
  for (const auto& row : rows) EXPECT_EQ(ParseFixedPoint(row.text, row.multiplier), row.value) << row.text;
}

TEST(FormatWhole, RoundsHalfToEven) {
  EXPECT_EQ(FormatWhole(15000), "2");
  EXPECT_EQ(FormatWhole(25000), "2");
  EXPECT_EQ(FormatWhole(25001), "3");
  EXPECT_EQ(FormatWhole(-20000), "-2");
  EXPECT_EQ(FormatWhole(-1), "0");
  EXPECT_EQ(FormatWhole(9223372036854770000), "922337203685477");
}

}  // namespace
}  // namespace trabex
