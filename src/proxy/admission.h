// Whether a client may have a session: by its address, and where the settings ask for it by its name.
#pragma once

#include <optional>
#include <string_view>

#include "base/ip_address.h"
#include "config/configuration.h"
#include "match/decision_trace.h"
#include "proxy/dialogue/dialogue_events.h"
#include "proxy/dialogue/policy_replies.h"

namespace trabex {

class Admission {
 public:
  struct Refusal {
    ReplyKind kind;
    DecidingList list = {};
  };

  // Both outlive it; `trace` may be nullptr.
  explicit Admission(const Configuration& configuration, DecisionTrace* trace = nullptr)
      : configuration_(configuration), trace_(trace) {}

  // Whether the client counts as local.
  bool IsLocal(const IPAddress& ip) const;
  // Whether neither its address nor its name is asked about.
  bool IsWhitelisted(const IPAddress& ip) const;
  // Of a client that is not white-listed.
  std::optional<Refusal> RefusedByAddress(const IPAddress& ip) const;
  // Whether a client's name decides.
  bool NameDecides(bool is_local, bool is_whitelisted) const;
  // Where it decides. `name` is "" when the client has none, and nothing when it is not known whether it has one:
  // then no list is about it.
  std::optional<Refusal> RefusedByName(std::optional<std::string_view> name) const;

 private:
  const Configuration& configuration_;
  DecisionTrace* trace_;
};

}  // namespace trabex
