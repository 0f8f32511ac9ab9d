#include "config/typed_readers.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "config_support.h"

namespace trabex {
namespace {

// Reads key "Key" of section Common, whose value is `value`, with errors ignored and without, and checks that
// both give and say the same.
template <class Read>
auto ReadBothWays(const std::string& value, const std::string& description, Read read) {
  ReadText read_text("[Common]\nKey=" + value + "\n", true);
  const SectionTable& section = read_text.store.Section("Common");
  const auto result = read(IniErrors{read_text.log, true}, section);
  const Lines expected =
      description.empty() ? Lines{} : Lines{ConfigErrorLine("Common", "Key", 380, description)};
  EXPECT_EQ(read_text.log.Take(), expected);
  try {
    EXPECT_EQ(read(IniErrors{read_text.log, false}, section), result);
    EXPECT_EQ(description, "") << "no error was raised";
  } catch (const Error& error) {
    EXPECT_EQ(error.Number(), 380);
    EXPECT_EQ(error.Description(), description);
  }
  EXPECT_EQ(read_text.log.Take(), expected);
  return result;
}

TEST(ReportConfigError, NamesSectionAndKeyAndRaisesUnlessIgnored) {
  RecordedLog log;
  mCommon::ReportConfigError({log, true}, "Common", "BindIP", 93, "Something.", "It is left out.");
  EXPECT_EQ(log.Take(),
            (Lines{"Error parsing initialization file. Section: \"Common\", Key name: \"BindIP\", Error "
                   "number: 93, Description: Something."}));
  try {
    mCommon::ReportConfigError({log, false}, "Common", "BindIP", 93, "Something.", "It is left out.");
    FAIL();
  } catch (const Error& error) {
    EXPECT_EQ(error.Number(), 93);
    EXPECT_EQ(error.Description(), "Something.");
  }
  EXPECT_EQ(log.Lines().size(), 1U);
}

TEST(ReportConfigError, NamesTheSectionAsTheStoreDoes) {
  ReadText read("[cOmMoN]\nKey=x\n", true);
  mCommon::GetInteger({read.log, true}, read.store.Section("Common"), "Key", 1, 0, 9);
  EXPECT_EQ(read.log.Lines(),
            (Lines{ConfigErrorLine("Common", "Key", 380, "Value is not a number: \"x\".")}));
}

TEST(GetInteger, ConvertsAndChecksTheRange) {
  const struct {
    const char* value;
    std::int32_t result;
    const char* description;
  } rows[] = {
      {"5", 5, ""},
      {"-5", -5, ""},
      {"+7", 7, ""},
      {"007", 7, ""},
      {"2.5", 2, ""},  // a fraction is rounded half to even
      {"3.5", 4, ""},
      {"9.4", 9, ""},
      {"-10", -10, ""},
      {"10", 10, ""},
      {"", 99, "Integer value expected."},
      {"   ", 99, "Integer value expected."},
      {"abc", 99, "Value is not a number: \"abc\"."},
      {"1e2", 99, "Value is not a number: \"1e2\"."},
      {"0x1", 99, "Value is not a number: \"0x1\"."},
      {"5 ;note", 99, "Value is not a number: \"5 ;note\"."},
      {"1,5", 99, "Value is not a number: \"1,5\"."},
      {"2147483648", 99, "Value is not a number: \"2147483648\"."},
      {"-2147483649", 99, "Value is not a number: \"-2147483649\"."},
      {"11", 99, "Value 11 lies out of allowed range: from -10 to 10."},
      {"-11", 99, "Value -11 lies out of allowed range: from -10 to 10."},
      {"0011", 99, "Value 0011 lies out of allowed range: from -10 to 10."},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.value);
    const auto result =
        ReadBothWays(row.value, row.description, [](IniErrors errors, const SectionTable& section) {
          return mCommon::GetInteger(errors, section, "Key", 99, -10, 10);
        });
    EXPECT_EQ(result, row.result);
  }
}

TEST(GetInteger, GivesTheDefaultOfAnAbsentKeyUnchecked) {
  ReadText read("", false);
  EXPECT_EQ(mCommon::GetInteger({read.log, false}, read.store.Section("Common"), "Key", 99, 0, 10), 99);
  EXPECT_EQ(read.log.Lines(), Lines{});
}

TEST(GetInteger, TakesABoundBeyond32Bits) {
  ReadText read("[Common]\nKey=2147483647\n", true);
  EXPECT_EQ(
      mCommon::GetInteger({read.log, true}, read.store.Section("Common"), "Key", 5, 2147483648, 2147483647),
      5);
  EXPECT_EQ(
      read.log.Lines(),
      (Lines{ConfigErrorLine("Common", "Key", 380,
                             "Value 2147483647 lies out of allowed range: from 2147483648 to 2147483647.")}));
}

TEST(GetSize, ConvertsSuffixesAndFractions) {
  const FixedPoint one = kFixedPointOne;
  const FixedPoint max = 922337203685476 * one;
  const struct {
    const char* value;
    FixedPoint result;
    const char* description;
  } rows[] = {
      {"0", 0, ""},
      {"1500", 1500 * one, ""},
      {"1.5", 15000, ""},
      {"1.5K", 1536 * one, ""},
      {"1k", 1024 * one, ""},
      {"3m", 3 * 1048576 * one, ""},
      {"2g", 2147483648 * one, ""},
      {"5 M", 5 * 1048576 * one, ""},
      {"-1", -1 * one, ""},
      {"-2", -2 * one, ""},
      {"0.00005", 0, ""},  // four places, rounded half to even
      {"922337203685476", max, ""},
      {"", 77, "Integer value expected."},
      {"K", 77, "Value is not a number: \"\"."},
      {"5X", 77, "Value is not a number: \"5X\"."},
      {"5KB", 77, "Value is not a number: \"5KB\"."},
      {"5KK", 77, "Value is not a number: \"5K\"."},
      {"1,5K", 77, "Value is not a number: \"1,5\"."},
      {"99999999999G", 77, "Value is not a number: \"99999999999\"."},
      {"922337203685478", 77, "Value is not a number: \"922337203685478\"."},
      {"922337203685477", 77, "Value 922337203685477 lies out of allowed range: from -2 to 922337203685476."},
      {"-3", 77, "Value -3 lies out of allowed range: from -2 to 922337203685476."},
      {"-2.0001", 77, "Value -2.0001 lies out of allowed range: from -2 to 922337203685476."},
      {"-1K", 77, "Value -1 lies out of allowed range: from -2 to 922337203685476."},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.value);
    const auto result =
        ReadBothWays(row.value, row.description, [&](IniErrors errors, const SectionTable& section) {
          return mCommon::GetSize(errors, section, "Key", 77, -2 * one, max);
        });
    EXPECT_EQ(result, row.result);
  }
}

TEST(GetSize, GivesTheDefaultOfAnAbsentKeyUnchecked) {
  ReadText read("", false);
  EXPECT_EQ(mCommon::GetSize({read.log, false}, read.store.Section("Common"), "Key", -99, 0, 10), -99);
}

TEST(GetString, ChecksItsPattern) {
  const struct {
    const char* value;
    const char* pattern;
    mCommon::PatternKind kind;
    const char* result;
    const char* description;
  } rows[] = {
      {"any thing", "", mCommon::PatternKind::kPlainLike, "any thing", ""},
      {"192.0.2.1", "*#.*#.*#.*#", mCommon::PatternKind::kPlainLike, "192.0.2.1", ""},
      {"localhost", "*#.*#.*#.*#", mCommon::PatternKind::kPlainLike, "d",
       "Inadmissible string: \"localhost\"."},
      {"", "*#.*#.*#.*#", mCommon::PatternKind::kPlainLike, "", ""},  // an empty value is not checked
      {"ABC", "a*", mCommon::PatternKind::kPlainLike, "d", "Inadmissible string: \"ABC\"."},
      {"ABC", "a*", mCommon::PatternKind::kLikeText, "ABC", ""},
      {"abc", "[]b*", mCommon::PatternKind::kLikeText, "abc", ""},  // "not" is known there only
      {"abc", "[]b*", mCommon::PatternKind::kPlainLike, "d", "Inadmissible string: \"abc\"."},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.value);
    const auto result =
        ReadBothWays(row.value, row.description, [&](IniErrors errors, const SectionTable& section) {
          return mCommon::GetString(errors, section, "Key", "d", row.pattern, row.kind);
        });
    EXPECT_EQ(result, row.result);
  }
  ReadText read("", false);
  EXPECT_EQ(mCommon::GetString({read.log, false}, read.store.Section("Common"), "Key", "unchecked", "#"),
            "unchecked");
}

TEST(GetReplacementTable, KeepsTheOrderOfTheFileAndLeavesOutBadKeys) {
  const std::string text =
      "[RecipientReplacements.Remote]\n*@z.test=z@x.test\na@b.test, \"c d\" e=\n= of the empty "
      "key\n\"[]\",q=6\n";
  const std::string bad_keys = "x[bad=1\nfine,x[z-a]=2\n\"open=3\nx\"y=4\nx[a,b]=5\n\"a\"b\"c=6\n";
  const std::vector<ReplacementTable::Rule> good = {
      {"*@z.test", "z@x.test"}, {"a@b.test, \"c d\" e", ""}, {"", "of the empty key"}, {"\"[]\",q", "6"}};
  const std::string section = "RecipientReplacements.Remote";

  ReadText read(text + bad_keys, false);
  ASSERT_TRUE(read.result);
  EXPECT_EQ(mCommon::GetReplacementTable({read.log, true}, read.store.Section(section)).Rules(), good);
  Lines reports;
  for (const char* key : {"x[bad", "fine,x[z-a]", "\"open", "x\"y", "x[a,b]", "\"a\"b\"c"}) {
    reports.push_back(ConfigErrorLine(section, key, 93, "Invalid Regular Expression in key name."));
  }
  EXPECT_EQ(read.log.Take(), reports);

  EXPECT_THROW(mCommon::GetReplacementTable({read.log, false}, read.store.Section(section)), Error);
  EXPECT_EQ(read.log.Lines(), (Lines{reports[0]}));
}

}  // namespace
}  // namespace trabex
