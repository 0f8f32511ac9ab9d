// The values of a session that replies and their changes name.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/clock.h"
#include "config/configuration.h"
#include "match/cReplaces.h"
#include "proxy/dialogue/dialogue_state.h"
#include "proxy/dialogue/session_facts.h"

namespace trabex {

// All references outlive it; it holds nothing itself.
class SessionMacros final : public MacroSource {
 public:
  SessionMacros(const Configuration& configuration, const Clock& clock, const SessionFacts& facts,
                const RequestedState& requested, const OfferedState& offered, std::int64_t bytes_received)
      : configuration_(configuration),
        clock_(clock),
        facts_(facts),
        requested_(requested),
        offered_(offered),
        bytes_received_(bytes_received) {}

  std::optional<std::string> Value(std::string_view name) const override;

  // The names that Value knows, in lower case.
  static std::vector<std::string_view> Names();

 private:
  struct Macro {
    std::string_view name;
    std::string (*value)(const SessionMacros& macros);
  };
  static std::span<const Macro> Table();

  const Configuration& configuration_;
  const Clock& clock_;
  const SessionFacts& facts_;
  const RequestedState& requested_;
  const OfferedState& offered_;
  std::int64_t bytes_received_;
};

}  // namespace trabex
