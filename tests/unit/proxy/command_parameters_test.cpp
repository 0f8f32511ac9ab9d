#include "proxy/dialogue/command_parameters.h"

#include <gtest/gtest.h>

#include <limits>

namespace trabex {
namespace {

TEST(CommandParameters, TheFirstOne) {
  EXPECT_EQ(FirstParameter(""), "");
  EXPECT_EQ(FirstParameter(" "), "");
  EXPECT_EQ(FirstParameter(" a"), "a");
  EXPECT_EQ(FirstParameter("  a  b "), "a");
}

TEST(CommandParameters, OctetCounts) {
  EXPECT_EQ(OctetCount("0"), 0u);
  EXPECT_EQ(OctetCount("0010"), 10u);
  EXPECT_EQ(OctetCount("2000000000"), 2000000000u);
  for (const char* word :
       {"", "2000000001", "99999999999999999999999999", "-1", "+1", " 1", "1 ", "1x", "x", "0x1", "1.0"}) {
    EXPECT_FALSE(OctetCount(word)) << word;
  }
}

TEST(CommandParameters, TheLastChunk) {
  for (const char* rest : {" 5 LAST", " 5 last", " 5  LAST ", " 5 LAST x", " LAST"})
    EXPECT_TRUE(IsLastChunk(rest)) << rest;
  for (const char* rest : {"", " 5", " 5 LASTX", " 5 XLAST", "LAST", " 5 LASTX LAST"})
    EXPECT_FALSE(IsLastChunk(rest)) << rest;
}

TEST(CommandParameters, ChunksSayHowManyOctetsAndNothingElse) {
  const struct {
    const char* rest;
    const char* said;
  } rows[] = {
      {" 5", " 7"},
      {" 5 ", " 7 "},
      {" 5 LAST", " 7 LAST"},
      {" 005 last", " 7 last"},
      {" 5 LAST x", " 7 LAST"},
      {" 5 x last", " 7 LAST"},
      {" 5 x", " 7"},
      {" 5 LASTRCPT TO:<a@b>", " 7"},
      {" 5 LASTX LAST", " 7"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(ChunkParameters(row.rest, 7, IsLastChunk(row.rest)), row.said) << row.rest;
}

TEST(CommandParameters, Keywords) {
  for (const char* parameters :
       {"", " ", " A", " SIZE=5", " SIZE=12abc", "  BODY=8BITMIME   X-Y=z  ", " AUTH=<>", " A= 8BITMIME",
        " ORCPT=rfc822;a+3Db@c.test", " A=B=C", " RET=\xC3\xA4"}) {
    EXPECT_TRUE(AreKeywordParameters(parameters)) << parameters;
  }
  for (const char* parameters : {" <a@b>", " a@b", " SIZE=5 <a@b>", " (SIZE=5)", " =5", " A =5", " -A",
                                 " A_B=1", " \"A\"", " ,", " \xC3\xA4=1", " A B: C"}) {
    EXPECT_FALSE(AreKeywordParameters(parameters)) << parameters;
  }
}

TEST(CommandParameters, DeclaredSizes) {
  constexpr FixedPoint kGreatest =
      std::numeric_limits<FixedPoint>::max() - std::numeric_limits<FixedPoint>::max() % kFixedPointOne;
  EXPECT_EQ(DeclaredSize(""), std::nullopt);
  EXPECT_EQ(DeclaredSize(" SIZE=x"), std::nullopt);
  EXPECT_EQ(DeclaredSize("SIZE=5"), std::nullopt);
  EXPECT_EQ(DeclaredSize(" SIZE=0"), 0);
  EXPECT_EQ(DeclaredSize(" size=5 A=B"), 5 * kFixedPointOne);
  EXPECT_EQ(DeclaredSize(" SIZE=5 SIZE=7 SIZE=6 SIZE=9x"), 7 * kFixedPointOne);
  EXPECT_EQ(DeclaredSize(" SIZE=922337203685477"), kGreatest);
  EXPECT_EQ(DeclaredSize(" SIZE=922337203685478"), kGreatest);
  EXPECT_EQ(DeclaredSize(" SIZE=99999999999999999999999999999999"), kGreatest);
}

}  // namespace
}  // namespace trabex
