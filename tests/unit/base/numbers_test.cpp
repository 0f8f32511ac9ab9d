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
      {"-3.5", -4},
      {"-0.4", 0},
      {"-0", 0},
      {"0.5", 0},
      {"1.5", 2},
      {"2.5000000000000000000000000000000001", 3},
      {"2.4999999999999999999999999999999999", 2},
      {"-2147483648.5", -2147483647 - 1},
      {"-2147483648.51", std::nullopt},
      {"-2147483649", std::nullopt},
      {"00000000000000000000000000000000000025", 25},
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
      {"2.5.1", std::nullopt},
      {"--1", std::nullopt},
      {"1-", std::nullopt},
      {"\xD9\xA1", std::nullopt},
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
      {"922337203685477.5807", 1, 9223372036854775807},
      {"922337203685477.5808", 1, std::nullopt},
      {"-922337203685477.5808", 1, -9223372036854775807 - 1},
      {"-922337203685477.5809", 1, std::nullopt},
      {"-922337203685478", 1, std::nullopt},
      {"-1.5", 1024, -15360000},
      {" 7 ", 1, 70000},
      {"1.00005", 10000, 100000000},  // rounded before it is multiplied
      {"0", 1073741824, 0},
      {"", 1, std::nullopt},
      {"1.5.5", 1, std::nullopt},
      {".5", 1, std::nullopt},
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
  EXPECT_EQ(FormatWhole(9223372036854775807), "922337203685478");
  EXPECT_EQ(FormatWhole(-9223372036854775807 - 1), "-922337203685478");
  EXPECT_EQ(FormatWhole(0), "0");
  EXPECT_EQ(FormatWhole(-5001), "-1");
}

}  // namespace
}  // namespace trabex
