#include "proxy/dialogue/address_policy.h"

#include "base/text.h"
#include "proxy/dialogue/mailbox.h"

namespace trabex {

namespace {

using Value = DecidingList::Value;
using enum ReplyKind;

// A list of the settings with its name.
struct NamedList {
  std::string_view name;
  const ExpressionList& list;
};

// A three-list test refuses a value that is neither in the white list nor in the allow list without being
// black-listed. Returns the list that decided when it refuses.
std::optional<DecidingList> RefusedByLists(std::string_view value, DecidingList::Value kind,
                                           const ExpressionList& white, const NamedList& allow,
                                           const NamedList& black, DecisionTrace* trace) {
  if (MatchesList(value, white, trace)) return std::nullopt;
  if (!MatchesList(value, allow.list, trace)) return DecidingList{.name = allow.name};
  if (!MatchesList(value, black.list, trace)) return std::nullopt;
  return DecidingList{.name = black.name, .list = &black.list, .value = kind};
}

std::optional<Refusal> RefusedFromLocal(const Configuration& c, bool local_domain,
                                        const RequestedState& requested, DecisionTrace* trace) {
  if (!local_domain && MatchesList(requested.Sender, c.RestrictedSenders, trace)) {
    return Refusal{
        .kind = kRcptRestricted,
        .list = {.name = "RestrictedSenders", .list = &c.RestrictedSenders, .value = Value::kSender}};
  }
  if (const auto list = RefusedByLists(requested.Recipient, Value::kRecipient, c.RecipientsWhiteListLocal,
                                       {"RecipientsAllowListLocal", c.RecipientsAllowListLocal},
                                       {"RecipientsBlackListLocal", c.RecipientsBlackListLocal}, trace)) {
    return Refusal{.kind = kRcptBlackListLocal, .list = *list};
  }
  return std::nullopt;
}

std::optional<Refusal> RefusedFromRemote(const Configuration& c, bool local_domain,
                                         const std::string& recipient, DecisionTrace* trace) {
  if (!local_domain) return Refusal{.kind = kRcptRelaying, .list = {.name = "LocalDomains"}};
  if (HasRouteInLocalPart(recipient)) return Refusal{kRcptRelaying};
  if (const auto list = RefusedByLists(recipient, Value::kRecipient, c.RecipientsWhiteListRemote,
                                       {"RecipientsAllowListRemote", c.RecipientsAllowListRemote},
                                       {"RecipientsBlackListRemote", c.RecipientsBlackListRemote}, trace)) {
    return Refusal{.kind = kRcptBlackListRemote, .list = *list};
  }
  if (MatchesList(recipient, c.PrivateRecipients, trace)) {
    return Refusal{
        .kind = kRcptPrivate,
        .list = {.name = "PrivateRecipients", .list = &c.PrivateRecipients, .value = Value::kRecipient}};
  }
  return std::nullopt;
}

}  // namespace

std::optional<Refusal> RefusedSender(const Configuration& configuration, const std::string& sender,
                                     DecisionTrace* trace) {
  if (sender.empty()) return std::nullopt;
  const auto list = RefusedByLists(sender, Value::kSender, configuration.SendersWhiteList,
                                   {"SendersAllowList", configuration.SendersAllowList},
                                   {"SendersBlackList", configuration.SendersBlackList}, trace);
  if (!list) return std::nullopt;
  return Refusal{.kind = kMailBlackList, .list = *list};
}

std::optional<Refusal> RefusedRecipient(const Configuration& configuration, const SessionFacts& facts,
                                        const RequestedState& requested, DecisionTrace* trace) {
  const bool local_domain =
      MatchesList(AddressDomain(requested.Recipient), configuration.LocalDomains, trace);
  return facts.IsLocalClient() ? RefusedFromLocal(configuration, local_domain, requested, trace)
                               : RefusedFromRemote(configuration, local_domain, requested.Recipient, trace);
}

}  // namespace trabex
