#include "base/delimited_text.h"

#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <string>
#include <vector>

#include "base/error.h"
#include "support/expect_error.h"

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

TEST(Undelimit, DelimitersMayBeLongerOrOneSided) {
  EXPECT_EQ(Undelimit("<<a>>", "<<", ">>"), "a");
  EXPECT_EQ(Undelimit("<<>>", "<<", ">>"), "");
  EXPECT_EQ(Undelimit("<a", "<", ""), "a") << "an empty delimiter need not be there";
  EXPECT_EQ(Undelimit("a>", "", ">"), "a");
  EXPECT_EQ(Undelimit("XaX", "x", "x", mCommon::Compare::kNoCase), "a");
  EXPECT_THROW(Undelimit("XaX", "x", "x"), Error);
  EXPECT_THROW(Undelimit("aba", "ab", "ba"), Error) << "the delimiters may not share a byte";
}

TEST(Undelimit, RefusesWhatIsNotDelimited) {
  for (const std::string text : {"a@b>", "<a@b", "", "<", ">", " <a>"}) {
    ExpectError([&] { Undelimit(text, "<", ">"); }, 321, "mCommon.Undelimit",
                "Invalid delimited string \"" + text + "\".");
  }
  ExpectError([] { Undelimit("\"", "\"", "\""); }, 321, "mCommon.Undelimit",
              "Invalid delimited string \"\"\".");
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
      {1, "a,b", ",", "\"", "\"", 2},
      {1, "\"a,b\",c", ",", "\"", "\"", 6},
      {1, "\"a\"\",b\",c", ",", "\"", "\"", 8},  // the doubled quote does not end the part
      {1, "<a=b>=c", "=", "<", ">", 6},
      {1, "abc", ",", "\"", "\"", 0},
      {3, "a,b,c", ",", "\"", "\"", 4},
      {1, "a,b", ",", "", "", 2},
      {1, "\"a,b\",c", ",", "\"", "", 6},  // the close delimiter is the open one
      {1, "a,\"b", ",", "\"", "\"", 2},    // the unbalanced part follows what was found
      {0, "a,b", ",", "", "", 2},
      {2, "a,b", ",", "", "", 2},
      {4, "a,b", ",", "", "", 0},
      {9, "a,b", ",", "", "", 0},
      {1, "", ",", "\"", "\"", 0},
      {1, "\"\",a", ",", "\"", "\"", 3},        // an empty part
      {1, "\"\"\"a,\",b", ",", "\"", "\"", 7},  // a doubled delimiter right after the open one
      {1, "\"a,\"\"\",b", ",", "\"", "\"", 7},  // and right before the close one
      {1, "\"a\"b,\"c,\",", ",", "\"", "\"", 5},
      {1, "<a,>>,>,b", ",", "<", ">", 8},    // only the close delimiter is doubled
      {1, "<a,<,>,b", ",", "<", ">", 7},     // parts do not nest
      {1, "a>,b", ",", "<", ">", 3},         // a close delimiter alone is text
      {2, "\"a,b\",c", ",", "\"", "\"", 3},  // parts are read from the start position on
      {1, "((a,b)),c", ",", "((", "))", 8},
      {1, "a<b", "<", "<", ">", 2},  // what is searched comes before what delimits
      {1, "a,b", "", "\"", "\"", 0},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(InstrOutsise(row.start, row.text, row.search, row.open, row.close), row.position) << row.text;
  }
}

TEST(InstrOutsise, ComparesAsAskedFor) {
  using mCommon::Compare;
  EXPECT_EQ(InstrOutsise(1, "aXb", "x", "", ""), 0U);
  EXPECT_EQ(InstrOutsise(1, "aXb", "x", "", "", Compare::kNoCase), 2U);
  EXPECT_EQ(InstrOutsise(1, "Q,q,", ",", "q", "q", Compare::kExact, Compare::kNoCase), 4U);
  EXPECT_EQ(InstrOutsise(1, "Q,qxq,", ",", "q", "q"), 2U);
}

TEST(InstrOutsise, ReportsAPartWithoutEnd) {
  for (const std::string text : {"\"a,b", "\"", "a\",", "\"a\"\",", "\"\"\""}) {
    ExpectError([&] { InstrOutsise(1, text, ",", "\"", "\""); }, 321, "mCommon.InstrOutsise",
                "Unbalanced delimiters in delimited string \"" + text + "\".");
  }
  ExpectError([] { InstrOutsise(1, "<a>>,", ",", "<", ">"); }, 321, "mCommon.InstrOutsise",
              "Unbalanced delimiters in delimited string \"<a>>,\".");
}

TEST(SplitOutside, CountsPiecesUpToItsLimit) {
  using Pieces = std::vector<std::string_view>;
  EXPECT_EQ(SplitOutside("a,b,c", ",", "", "", {.limit = 1}), (Pieces{"a,b,c"}));
  EXPECT_EQ(SplitOutside("a,b,c", ",", "", "", {.limit = 3}), (Pieces{"a", "b", "c"}));
  EXPECT_EQ(SplitOutside("a,b,c", ",", "", "", {.limit = 9}), (Pieces{"a", "b", "c"}));
  EXPECT_EQ(SplitOutside(",a,,b,c", ",", "", "", {.limit = 2, .skipEmpty = true}), (Pieces{"a", ",b,c"}));
  EXPECT_EQ(SplitOutside("\"a,b\",c,d", ",", "\"", "\"", {.limit = 2}), (Pieces{"\"a,b\"", "c,d"}));
  // The rest is not read, so a part without end in it is not reported.
  EXPECT_EQ(SplitOutside("a,\"b", ",", "\"", "\"", {.limit = 2}), (Pieces{"a", "\"b"}));
}

TEST(SplitOutside, ReportsAPartWithoutEnd) {
  ExpectError([] { SplitOutside("a,\"b", ",", "\"", "\""); }, 321, "mCommon.InstrOutsise",
              "Unbalanced delimiters in delimited string \"a,\"b\".");
}

TEST(SplitOutside, EmptyPiecesAtTheEnds) {
  using Pieces = std::vector<std::string_view>;
  EXPECT_EQ(SplitOutside(",", ",", "", ""), (Pieces{"", ""}));
  EXPECT_EQ(SplitOutside(",a,", ",", "", ""), (Pieces{"", "a", ""}));
  EXPECT_EQ(SplitOutside(",a,", ",", "", "", {.skipEmpty = true}), (Pieces{"a"}));
  EXPECT_EQ(SplitOutside("\"\"", " ", "\"", "\"", {.skipEmpty = true}), (Pieces{"\"\""}));
}

// The pieces as read byte by byte, or nothing when a part has no end.
std::optional<std::vector<std::string>> PiecesByHand(std::string_view text, char open, char close) {
  std::vector<std::string> pieces(1);
  bool inside = false;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const char c = text[at];
    if (!inside && c == ',') {
      pieces.emplace_back();
      continue;
    }
    pieces.back() += c;
    if (!inside) {
      inside = c == open;
    } else if (c == close) {
      if (at + 1 < text.size() && text[at + 1] == close) {
        pieces.back() += text[++at];
      } else {
        inside = false;
      }
    }
  }
  if (inside) return std::nullopt;
  return pieces;
}

TEST(SplitOutside, IsThatForRandomTexts) {
  std::mt19937 random(321);
  int balanced = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string text;
    for (auto size = random() % 12; size > 0; --size) text += "a,,\"<>"[random() % 6];
    for (const std::string_view pair : {"\"\"", "<>"}) {
      const auto expected = PiecesByHand(text, pair[0], pair[1]);
      try {
        const auto pieces = SplitOutside(text, ",", pair.substr(0, 1), pair.substr(1));
        ASSERT_TRUE(expected) << text;
        ASSERT_EQ(std::vector<std::string>(pieces.begin(), pieces.end()), *expected) << text;
        ++balanced;
      } catch (const Error&) {
        ASSERT_FALSE(expected) << text;
      }
    }
  }
  EXPECT_GT(balanced, 5000);
}

TEST(SplitOutside, SplitsOutsideOfDelimitedParts) {
  using Pieces = std::vector<std::string_view>;
  EXPECT_EQ(SplitOutside("a  \"b c\" d", " ", "\"", "\"", {.skipEmpty = true}),
            (Pieces{"a", "\"b c\"", "d"}));
  EXPECT_EQ(SplitOutside("a,,b", ",", "", ""), (Pieces{"a", "", "b"}));
  EXPECT_EQ(SplitOutside("a=b=c", "=", "", "", {.limit = 2}), (Pieces{"a", "b=c"}));
  EXPECT_EQ(SplitOutside("", ",", "", ""), (Pieces{""}));
  EXPECT_EQ(SplitOutside("", ",", "", "", {.skipEmpty = true}), (Pieces{}));
  EXPECT_EQ(SplitOutside("aXXbxxc", "xx", "", "", {.compareMode = mCommon::Compare::kNoCase}),
            (Pieces{"a", "b", "c"}));
}

}  // namespace
}  // namespace trabex
