#include "base/delimited_text.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/error.h"

namespace trabex {
namespace {

using mCommon::InstrOutsise;
using mCommon::SplitOutside;
using mCommon::Undelimit;

TEST(Undelimit, GivesTheTextBetweenTheDelimiters) {
  EXPECT_EQ(Undelimit("<a@b>", "<", ">"), "a@b");
  EXPECT_EQ(Undelimit("\"\"", "\"", "\""), "");
  EXPECT_EQ(Undelimit("\"a\"\"b\"", "\"", "\""), "a\"\"b") << "doubled delimiters stay";
  EXPECT_EQ(Undelimit("plain", "", ""), "plain");
}

TEST(Undelimit, RefusesWhatIsNotDelimited) {
  for (const char* text : {"a@b>", "<a@b", "", "\"", "<"}) {
    const std::string open = text[0] == '"' ? "\"" : "<";
    const std::string close = text[0] == '"' ? "\"" : ">";
    try {
      Undelimit(text, open, close);
      FAIL() << text;
    } catch (const Error& error) {
      EXPECT_EQ(error.Number(), 321);
      EXPECT_EQ(error.Source(), "mCommon.Undelimit");
      EXPECT_EQ(error.Description(), "Invalid delimited string \"" + std::string(text) + "\".");
    }
  }
}

TEST(InstrOutsise, SkipsDelimitedParts) {
  struct Row {
    std::size_t start;
    const char* text;
    const char* search;
    const char* open;
    const char* close;
    std::size_t position;
  };
  const Row rows[] = {
      {1, "a,b", ",", "\"", "\"", 2},           {1, "\"a,b\",c", ",", "\"", "\"", 6},
      {1, "\"a\"\",b\",c", ",", "\"", "\"", 8},  // the doubled quote does not end the part
      {1, "<a=b>=c", "=", "<", ">", 6},         {1, "abc", ",", "\"", "\"", 0},
      {3, "a,b,c", ",", "\"", "\"", 4},         {1, "a,b", ",", "", "", 2},
      {1, "\"a,b\",c", ",", "\"", "", 6},  // the close delimiter is the open one
      {1, "a,\"b", ",", "\"", "\"", 2},    // the unbalanced part lies behind what was found
  };
  for (const Row& row : rows) {
    EXPECT_EQ(InstrOutsise(row.start, row.text, row.search, row.open, row.close), row.position) << row.text;
  }
}

TEST(InstrOutsise, ReportsAPartWithoutEnd) {
  try {
    InstrOutsise(1, "\"a,b", ",", "\"", "\"");
    FAIL();
  } catch (const Error& error) {
    EXPECT_EQ(error.Number(), 321);
    EXPECT_EQ(error.Source(), "mCommon.InstrOutsise");
    EXPECT_EQ(error.Description(), "Unbalanced delimiters in delimited string \"\"a,b\".");
  }
}

TEST(SplitOutside, SplitsOutsideOfDelimitedParts) {
  using Pieces = std::vector<std::string_view>;
  EXPECT_EQ(SplitOutside("a  \"b c\" d", " ", "\"", "\"", -1, mCommon::Compare::kExact, true),
            (Pieces{"a", "\"b c\"", "d"}));
  EXPECT_EQ(SplitOutside("a,,b", ",", "", ""), (Pieces{"a", "", "b"}));
  EXPECT_EQ(SplitOutside("a=b=c", "=", "", "", 2), (Pieces{"a", "b=c"}));
  EXPECT_EQ(SplitOutside("", ",", "", ""), (Pieces{""}));
  EXPECT_EQ(SplitOutside("", ",", "", "", -1, mCommon::Compare::kExact, true), (Pieces{}));
  EXPECT_EQ(SplitOutside("aXXbxxc", "xx", "", "", -1, mCommon::Compare::kNoCase), (Pieces{"a", "b", "c"}));
}

}  // namespace
}  // namespace trabex
