#include "proxy/dialogue/response_changes.h"

#include <cstddef>
#include <exception>
#include <vector>

namespace trabex {

void ApplyResponseChanges(std::string_view key, std::string& reply, const Configuration& configuration,
                          const MacroSource& macros, DecisionTrace* trace) {
  const cReplaces* replaces = configuration.ResponseChanges.Find(key);
  if (!replaces) return;
  std::string changed = reply;
  try {
    std::vector<std::size_t> rules;
    replaces->Apply(changed, macros, trace == nullptr ? nullptr : &rules);
    for (const std::size_t rule : rules) trace->Changed(*replaces, rule);
    reply = std::move(changed);
  } catch (const std::exception&) {
    // A rule that fails must not cost the client its reply.
  }
}

void ApplyPolicyChanges(ReplyKind kind, std::string_view key, const RequestedState& requested,
                        std::string& reply, const Configuration& configuration, const MacroSource& macros,
                        DecisionTrace* trace) {
  if (key.empty()) return;
  const auto apply = [&](std::string_view name) {
    ApplyResponseChanges(name, reply, configuration, macros, trace);
  };
  std::string most_specific;
  switch (kind) {
    case ReplyKind::kBadSequence:
    case ReplyKind::kBadSequenceBadIP:
    case ReplyKind::kBadSequenceNoHelo:
      apply("BadSeq");
      most_specific = std::string(requested.CurrentVerb).append(".").append(key);
      break;
    case ReplyKind::kRcptRestricted:
      most_specific = std::string(key).append(".").append(requested.Sender);
      break;
    case ReplyKind::kRcptBlackListLocal:
    case ReplyKind::kRcptBlackListRemote:
    case ReplyKind::kRcptPrivate:
    case ReplyKind::kRcptGreylisted:
      most_specific = std::string(key).append(".").append(requested.Recipient);
      break;
    default:
      break;
  }
  apply(key);
  if (!most_specific.empty()) apply(most_specific);
}

}  // namespace trabex
