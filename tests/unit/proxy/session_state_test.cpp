#include "proxy/session_state.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <set>
#include <string>
#include <string_view>

#include "support/source_documents.h"

namespace trabex {
namespace {

TEST(SessionState, EachHasAShortNameOfItsOwn) {
  std::set<std::string_view> names;
  for (std::size_t i = 0; i < kSessionStates; ++i) {
    const std::string_view name = SessionStateName(static_cast<SessionState>(i));
    EXPECT_TRUE(names.insert(name).second) << name;
    EXPECT_FALSE(name.empty());
    EXPECT_LE(name.size(), 10U);
    EXPECT_EQ(name.find_first_not_of("abcdefghijklmnopqrstuvwxyz-"), std::string_view::npos) << name;
  }
}

// The table of states is the last one of its section.
TEST(SessionState, EachIsInTheDocument) {
  const std::string document = SourceFile("docs/control.md");
  const std::size_t begin = document.find("\n| state | |\n");
  ASSERT_NE(begin, std::string::npos);
  const std::string table = document.substr(begin, document.find("\n\n", begin + 1) - begin);
  for (std::size_t i = 0; i < kSessionStates; ++i) {
    const std::string row = "\n| `" + std::string(SessionStateName(static_cast<SessionState>(i))) + "` | ";
    EXPECT_NE(table.find(row), std::string::npos) << row;
  }
  EXPECT_EQ(static_cast<std::size_t>(std::count(table.begin(), table.end(), '`')), 2 * kSessionStates);
}

TEST(SessionState, GroupsTellWhatIsWaitedFor) {
  using enum SessionState;
  using Group = SessionStateGroup;
  const struct {
    SessionState state;
    Group group;
  } cases[] = {
      {kBalancer, Group::kOther},
      {kClientTls, Group::kOther},
      {kClientName, Group::kWaitsForDns},
      {kServerConnect, Group::kWaitsForServer},
      {kIdle, Group::kOther},
      {kServerGreeting, Group::kWaitsForServer},
      {kHeloLookup, Group::kWaitsForDns},
      {kServerReply, Group::kWaitsForServer},
      {kContent, Group::kContent},
      {kContentReply, Group::kWaitsForServer},
      {kClientTakes, Group::kOther},
      {kRefused, Group::kRefused},
      {kEnding, Group::kOther},
  };
  EXPECT_EQ(std::size(cases), kSessionStates);
  for (const auto& c : cases) EXPECT_EQ(GroupOf(c.state), c.group) << SessionStateName(c.state);
}

}  // namespace
}  // namespace trabex
