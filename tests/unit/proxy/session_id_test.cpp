#include "proxy/session_id.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace trabex {
namespace {

TEST(SessionId, HasSixteenDigits) {
  const struct {
    SessionId id;
    std::string_view digits;
  } rows[] = {{0, "0000000000000000"},
              {1, "0000000000000001"},
              {0xABC, "0000000000000abc"},
              {0x0123456789ABCDEF, "0123456789abcdef"},
              {~SessionId{0}, "ffffffffffffffff"}};
  for (const auto& row : rows) {
    EXPECT_EQ(FormatSessionId(row.id), row.digits);
    EXPECT_EQ(ParseSessionId(row.digits), row.id);
  }
  EXPECT_EQ(ParseSessionId("00000000DEADBEEF"), SessionId{0xDEADBEEF});
}

TEST(SessionId, NothingElseIsOne) {
  for (const std::string_view text :
       {"", "0", "000000000000001", "00000000000000001", "000000000000000g", "-000000000000001",
        "0x00000000000001", " 000000000000001", "000000000000001 "}) {
    EXPECT_EQ(ParseSessionId(text), std::nullopt) << text;
  }
}

// Close ones, so that sessions of two runs got the same names, would be as bad as equal ones.
TEST(SessionId, RunsBeginFarApart) {
  std::set<SessionId> seen;
  for (int i = 0; i < 1000; ++i) EXPECT_TRUE(seen.insert(FirstSessionId() >> 24).second);
}

}  // namespace
}  // namespace trabex
