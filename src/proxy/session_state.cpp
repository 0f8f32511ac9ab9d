#include "proxy/session_state.h"

#include <array>
#include <cstddef>

namespace trabex {

namespace {

using Group = SessionStateGroup;

struct Row {
  SessionState state;
  std::string_view name;
  Group group;
};

// The row's place is the state's number.
constexpr std::array<Row, kSessionStates> kRows = {{
    {SessionState::kBalancer, "balancer", Group::kOther},
    {SessionState::kClientTls, "tls", Group::kOther},
    {SessionState::kClientName, "dns-client", Group::kWaitsForDns},
    {SessionState::kServerConnect, "connect", Group::kWaitsForServer},
    {SessionState::kServerGreeting, "greeting", Group::kWaitsForServer},
    {SessionState::kIdle, "idle", Group::kOther},
    {SessionState::kHeloLookup, "dns-helo", Group::kWaitsForDns},
    {SessionState::kServerReply, "reply", Group::kWaitsForServer},
    {SessionState::kContent, "content", Group::kContent},
    {SessionState::kContentReply, "end-reply", Group::kWaitsForServer},
    {SessionState::kClientTakes, "sending", Group::kOther},
    {SessionState::kRefused, "refused", Group::kRefused},
    {SessionState::kEnding, "ending", Group::kOther},
}};

static_assert([] {
  for (std::size_t i = 0; i < kRows.size(); ++i) {
    if (static_cast<std::size_t>(kRows[i].state) != i) return false;
  }
  return true;
}());

}  // namespace

std::string_view SessionStateName(SessionState state) {
  return kRows[static_cast<std::size_t>(state)].name;
}

SessionStateGroup GroupOf(SessionState state) {
  return kRows[static_cast<std::size_t>(state)].group;
}

}  // namespace trabex
