#include "proxy/admission.h"

#include <cstdint>

namespace trabex {

bool Admission::IsLocal(const IPAddress& ip) const {
  return MatchesList(ip, configuration_.LocalIPs, trace_);
}

bool Admission::IsWhitelisted(const IPAddress& ip) const {
  return MatchesList(ip, configuration_.IPWhiteList, trace_);
}

std::optional<Admission::Refusal> Admission::RefusedByAddress(const IPAddress& ip) const {
  const Configuration& c = configuration_;
  if (!MatchesList(ip, c.IPAllowList, trace_)) {
    return Refusal{ReplyKind::kIPBlackList, {.name = "IPAllowList"}};
  }
  if (!MatchesList(ip, c.IPBlackList, trace_)) return std::nullopt;
  return Refusal{ReplyKind::kIPBlackList, {.name = "IPBlackList", .ranges = &c.IPBlackList}};
}

bool Admission::NameDecides(bool is_local, bool is_whitelisted) const {
  const std::int32_t check = is_local ? validate_rdns::kLocalClients : validate_rdns::kRemoteClients;
  return (configuration_.ValidateRDNS & check) != 0 && !is_whitelisted;
}

std::optional<Admission::Refusal> Admission::RefusedByName(std::optional<std::string_view> known_name) const {
  // It may come again when DNS can say who it is.
  if (!known_name) return Refusal{ReplyKind::kNoPtr};
  const std::string_view name = *known_name;
  const Configuration& c = configuration_;
  if (MatchesList(name, c.HostsWhiteList, trace_)) return std::nullopt;
  // The allow list's "*" is meant for names; a client that has none does not pass by it.
  const bool allowed = !name.empty() && MatchesList(name, c.HostsAllowList, trace_);
  if (allowed && !MatchesList(name, c.HostsBlackList, trace_)) return std::nullopt;
  DecidingList list{.name = "HostsBlackList", .list = &c.HostsBlackList, .value = DecidingList::Value::kName};
  if (!allowed) list = {.name = name.empty() ? "HostsWhiteList" : "HostsAllowList"};
  return Refusal{name.empty() ? ReplyKind::kNoPtr : ReplyKind::kHostsBlackList, list};
}

}  // namespace trabex
