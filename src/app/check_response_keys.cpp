#include "app/check_response_keys.h"

#include <algorithm>
#include <array>
#include <vector>

#include "app/near_name.h"
#include "base/text.h"
#include "match/mText.h"
#include "proxy/dialogue/command_table.h"
#include "proxy/dialogue/policy_replies.h"
#include "proxy/dialogue/session_macros.h"

namespace trabex {

namespace {

using C = Configuration;

// Keys that stand for one address with it behind them.
constexpr std::array<std::string_view, 5> kAddressFamilies = {
    "RCPT.Restricted", "RCPT.BlackList.Local", "RCPT.BlackList.Remote", "RCPT.Private", "RCPT.Greylisted"};
// Those that may have the verb in front.
constexpr std::array<std::string_view, 5> kBadSequences = {
    "BadSeq.BadIP", "BadSeq.NoHelo", "BadSeq.Transaction", "BadSeq.NoTransaction", "BadSeq.BDAT"};

std::vector<std::string> Verbs() {
  std::vector<std::string> verbs = {"ETRN"};
  for (const CommandRow& row : AllCommands()) verbs.emplace_back(row.verb);
  return verbs;
}

bool IsVerb(std::string_view text) {
  if (!text.empty() && ToUpper(text.front()) == 'X') return true;
  const std::vector<std::string> verbs = Verbs();
  return std::any_of(verbs.begin(), verbs.end(),
                     [&](const std::string& verb) { return EqualNoCase(verb, text); });
}

// The code of a reply, RFC 5321, 4.2.1.
bool IsCode(std::string_view text) {
  return text.size() == 3 && text[0] >= '2' && text[0] <= '5' && IsDigit(text[1]) && IsDigit(text[2]);
}

// Those of the proxy's own replies without an address or a verb.
std::vector<std::string> PlainKeys() {
  std::vector<std::string> keys(kBadSequences.begin(), kBadSequences.end());
  for (int kind = 0; kind < kReplyKinds; ++kind) {
    const std::string_view key = FindPolicyReply(static_cast<ReplyKind>(kind)).key;
    if (!key.empty()) keys.emplace_back(key);
  }
  return keys;
}

bool Holds(const std::vector<std::string>& keys, std::string_view key) {
  return std::any_of(keys.begin(), keys.end(), [&](const std::string& one) { return EqualNoCase(one, key); });
}

// The family that `key` belongs to, and the address behind it.
struct AddressKey {
  std::string_view family;  // "" when it is no such key
  std::string_view address;
};
AddressKey ReadAddressKey(std::string_view key) {
  for (const std::string_view family : kAddressFamilies) {
    const std::size_t size = family.size();
    if (key.size() > size + 1 && key[size] == '.' && StartsWithNoCase(key, family)) {
      return {family, key.substr(size + 1)};
    }
  }
  return {};
}

// `key` without the verb in front of one of a bad sequence.
std::string_view WithoutVerb(std::string_view key) {
  for (const std::string_view bad_sequence : kBadSequences) {
    if (EqualNoCase(key, bad_sequence)) return key;
    const bool has_more = key.size() > bad_sequence.size() + 1 && EndsWithNoCase(key, bad_sequence) &&
                          key[key.size() - bad_sequence.size() - 1] == '.';
    if (has_more && IsVerb(key.substr(0, key.size() - bad_sequence.size() - 1))) return bad_sequence;
  }
  return key;
}

bool IsServerKey(std::string_view key) {
  const std::size_t dot = key.rfind('.');
  if (dot == std::string_view::npos) return IsCode(key);
  return IsCode(key.substr(dot + 1)) && (dot == 0 || IsVerb(key.substr(0, dot)));
}

// ---- When a reply cannot come

bool TakesAll(const ExpressionList& list) {
  for (std::size_t index = 0; index < list.Count(); ++index) {
    const ListEntry entry = list.Entry(index);
    if (entry.patterns.size() == 1 && entry.patterns.front() == "*") return true;
  }
  return false;
}

// Whether nothing is refused by the three lists of a kind.
bool PassesAll(const ExpressionList& white, const ExpressionList& allow, const ExpressionList& black) {
  return TakesAll(white) || (TakesAll(allow) && black.Count() == 0);
}

bool Passes(std::string_view text, const ExpressionList& white, const ExpressionList& allow,
            const ExpressionList& black) {
  return white.Contains(text) || (allow.Contains(text) && !black.Contains(text));
}

bool HoldsFamily(const IPRangeList& list, bool ipv6) {
  const std::vector<IPRange> ranges = list.Ranges();
  return std::any_of(ranges.begin(), ranges.end(), [&](const IPRange& range) {
    return range.low.IsIPv6() == ipv6 && mCommon::IsWholeFamily(range);
  });
}

bool AdmitsAllAddresses(const C& c) {
  const bool uses_ipv6 =
      c.ProxyProtocolFrom.Count() > 0 || std::any_of(c.BindAddresses.begin(), c.BindAddresses.end(),
                                                     [](const IPAddress& a) { return a.IsIPv6(); });
  const auto admits = [&](bool ipv6) {
    return HoldsFamily(c.IPWhiteList, ipv6) ||
           (HoldsFamily(c.IPAllowList, ipv6) && c.IPBlackList.Count() == 0);
  };
  return admits(false) && (!uses_ipv6 || admits(true));
}

constexpr std::int32_t kHeloDns = validate_helo::kDnsLocal | validate_helo::kDnsRemote;
constexpr std::int32_t kHeloList = validate_helo::kBlackListLocal | validate_helo::kBlackListRemote;

std::string Unless(bool may_apply, std::string_view reason) {
  return may_apply ? std::string() : std::string(reason);
}

std::string NoNameChecks(const C& c) {
  const bool of_local = (c.ValidateRDNS & validate_rdns::kLocalClients) != 0 && c.LocalIPs.Count() > 0;
  const bool of_remote = (c.ValidateRDNS & validate_rdns::kRemoteClients) != 0;
  return Unless(of_local || of_remote, c.ValidateRDNS == 0
                                           ? "ValidateRDNS is 0"
                                           : "ValidateRDNS asks for local clients, and LocalIPs is empty");
}
std::string NoNameIsRefused(const C& c) {
  std::string reason = NoNameChecks(c);
  if (!reason.empty()) return reason;
  return Unless(!PassesAll(c.HostsWhiteList, c.HostsAllowList, c.HostsBlackList),
                "every client name is admitted");
}
// Clients whose name cannot be told for now are not asked whether a list takes those without one.
std::string NoPtrIsNeeded(const C& c) {
  std::string reason = NoNameChecks(c);
  if (!reason.empty()) return reason;
  return Unless(!c.HostsWhiteList.Contains("") || c.Service.DnsFailure != 0,
                "HostsWhiteList takes clients without a name");
}
// Nobody stays whose name is refused.
std::string NobodyIsRefusedByName(const C& c) {
  std::string reason = NoPtrIsNeeded(c);
  return reason.empty() || NoNameIsRefused(c).empty() ? std::string() : reason;
}
std::string NoLimit(std::int32_t local, std::int32_t remote, const C& c, std::string_view reason) {
  return Unless((local != 0 && c.LocalIPs.Count() > 0) || remote != 0, reason);
}
std::string NoHeloLookUps(const C& c) {
  return Unless((c.ValidateHELO & kHeloDns) != 0, "ValidateHELO asks for no look-up in DNS");
}
std::string NoCertificate(const C& c) {
  return Unless(c.TLS.WantsCertificate(), "there is no Certificate");
}
std::string NoGreyListing(const C& c) {
  return Unless(c.GreyListing.Enabled, "greylisting is not enabled");
}

struct Condition {
  std::string_view key;
  // Why the reply cannot come; "" when it may.
  std::string (*why_never)(const C&);
};

// Replies that are not here may come with all settings.
constexpr std::array kConditions = {
    Condition{"TooManyConnections",
              [](const C& c) { return Unless(c.MaxConnections != 0, "MaxConnections is 0"); }},
    Condition{"IPBlackList",
              [](const C& c) { return Unless(!AdmitsAllAddresses(c), "every client address is admitted"); }},
    Condition{"HostsBlackList", NoNameIsRefused},
    Condition{"NoPtr", NoPtrIsNeeded},
    Condition{"QUIT.BadIP", NobodyIsRefusedByName},
    Condition{"BadSeq.BadIP", NobodyIsRefusedByName},
    Condition{"HELO.NoDomain",
              [](const C& c) {
                const bool looks_up = (c.ValidateHELO & kHeloDns) != 0;
                const bool has_list = (c.ValidateHELO & kHeloList) != 0 && c.HELOBlackList.Contains("");
                return Unless(
                    looks_up || has_list,
                    "ValidateHELO asks for no look-up in DNS, and for no list that holds the empty name");
              }},
    Condition{"HELO.BlackList",
              [](const C& c) {
                if ((c.ValidateHELO & kHeloList) == 0)
                  return std::string("ValidateHELO does not ask for HELOBlackList");
                return Unless(c.HELOBlackList.Count() > 0, "HELOBlackList is empty");
              }},
    Condition{"HELO.DNSError", NoHeloLookUps},
    Condition{"HELO.Invalid", NoHeloLookUps},
    Condition{"TLS.Required", [](const C& c) { return Unless(c.TLS.Require != 0, "Require is 0"); }},
    Condition{"TLS.Syntax", NoCertificate},
    Condition{"TLS.NotAvailable", NoCertificate},
    Condition{"TLS.DataBehind", NoCertificate},
    Condition{"AUTH.TLSRequired",
              [](const C& c) {
                if (c.TLS.RequireForAUTH == 0) return std::string("RequireForAUTH is 0");
                return NoCertificate(c);
              }},
    Condition{"MAIL.TooManyTransactions",
              [](const C& c) {
                return NoLimit(c.MaxTransactionsLocal, c.MaxTransactionsRemote, c,
                               "no client has a limit, by MaxTransactionsLocal or MaxTransactionsRemote");
              }},
    Condition{"MAIL.BlackList",
              [](const C& c) {
                return Unless(!PassesAll(c.SendersWhiteList, c.SendersAllowList, c.SendersBlackList),
                              "every sender is taken");
              }},
    Condition{"MAIL.Size", [](const C& c) { return Unless(c.MaxSize >= 0, "MaxSize asks for no limit"); }},
    Condition{"RCPT.TooManyRecipients",
              [](const C& c) {
                return NoLimit(c.MaxRecipientsLocal, c.MaxRecipientsRemote, c,
                               "no client has a limit, by MaxRecipientsLocal or MaxRecipientsRemote");
              }},
    Condition{"RCPT.Restricted",
              [](const C& c) {
                if (c.LocalIPs.Count() == 0) return std::string("LocalIPs is empty");
                return Unless(c.RestrictedSenders.Count() > 0, "RestrictedSenders is empty");
              }},
    Condition{"RCPT.BlackList.Local",
              [](const C& c) {
                if (c.LocalIPs.Count() == 0) return std::string("LocalIPs is empty");
                return Unless(!PassesAll(c.RecipientsWhiteListLocal, c.RecipientsAllowListLocal,
                                         c.RecipientsBlackListLocal),
                              "local clients may send to every recipient");
              }},
    Condition{"RCPT.BlackList.Remote",
              [](const C& c) {
                if (c.LocalDomains.Count() == 0) return std::string("LocalDomains is empty");
                return Unless(!PassesAll(c.RecipientsWhiteListRemote, c.RecipientsAllowListRemote,
                                         c.RecipientsBlackListRemote),
                              "remote clients may send to every recipient");
              }},
    Condition{"RCPT.Private",
              [](const C& c) {
                if (c.LocalDomains.Count() == 0) return std::string("LocalDomains is empty");
                return Unless(c.PrivateRecipients.Count() > 0, "PrivateRecipients is empty");
              }},
    Condition{"RCPT.Greylisted",
              [](const C& c) {
                if (c.LocalDomains.Count() == 0) return std::string("LocalDomains is empty");
                return NoGreyListing(c);
              }},
    Condition{"DATA.Greylisted",
              [](const C& c) {
                if (!c.GreyListing.Enabled) return NoGreyListing(c);
                if (c.LocalDomains.Count() == 0) return std::string("LocalDomains is empty");
                if (c.GreyListing.CallbackSendersList.Count() == 0)
                  return std::string("CallbackSendersList is empty");
                return Unless(c.GreyListing.CallbackSenderAction == callback_sender_action::kRefuseAtData,
                              "CallbackSenderAction is not 1");
              }},
};

// The same of one address, where the reply as such may come.
std::string WhyNeverForAddress(const AddressKey& key, const C& c) {
  const std::string_view address = key.address;
  const bool is_local_domain = c.LocalDomains.Contains(AddressDomain(address));
  if (EqualNoCase(key.family, "RCPT.Restricted")) {
    return Unless(c.RestrictedSenders.Contains(address), "RestrictedSenders does not hold this address");
  }
  if (EqualNoCase(key.family, "RCPT.BlackList.Local")) {
    return Unless(
        !Passes(address, c.RecipientsWhiteListLocal, c.RecipientsAllowListLocal, c.RecipientsBlackListLocal),
        "local clients may send to this address");
  }
  if (!is_local_domain) return "LocalDomains does not hold the domain of this address";
  const bool is_taken =
      Passes(address, c.RecipientsWhiteListRemote, c.RecipientsAllowListRemote, c.RecipientsBlackListRemote);
  if (EqualNoCase(key.family, "RCPT.BlackList.Remote")) {
    return Unless(!is_taken, "remote clients may send to this address");
  }
  const bool is_private = c.PrivateRecipients.Contains(address);
  if (EqualNoCase(key.family, "RCPT.Private") && !is_private) {
    return "PrivateRecipients does not hold this address";
  }
  if (!is_taken) return "the reply to this address is RCPT.BlackList.Remote";
  if (EqualNoCase(key.family, "RCPT.Greylisted") && is_private) {
    return "the reply to this address is RCPT.Private";
  }
  return {};
}

// Names of one kind with others behind or before them, for the hint.
std::vector<std::string> NearbyKeys(std::string_view key) {
  std::vector<std::string> keys = PlainKeys();
  const std::vector<std::string> verbs = Verbs();
  for (const std::string& verb : verbs) {
    for (const std::string_view bad_sequence : kBadSequences)
      keys.push_back(verb + "." + std::string(bad_sequence));
  }
  const std::size_t dot = key.rfind('.');
  if (dot != std::string_view::npos && IsCode(key.substr(dot + 1))) {
    for (const std::string& verb : verbs) keys.push_back(verb + std::string(key.substr(dot)));
  }
  for (const std::string_view family : kAddressFamilies) {
    // As many words of the key as the family has.
    std::size_t end = 0;
    for (auto words = std::count(family.begin(), family.end(), '.') + 1; words > 0 && end != key.npos;
         --words) {
      end = key.find('.', end == 0 ? 0 : end + 1);
    }
    if (end != std::string_view::npos) keys.push_back(std::string(family) + std::string(key.substr(end)));
  }
  return keys;
}

// The macros that all replies have.
std::vector<std::string_view> MacroNames() {
  std::vector<std::string_view> names = SessionMacros::Names();
  names.insert(names.end(), {"original", "crlf"});
  return names;
}

}  // namespace

bool IsResponseKey(std::string_view key) {
  return Holds(PlainKeys(), WithoutVerb(key)) || !ReadAddressKey(key).family.empty() || IsServerKey(key);
}

std::string ResponseKeyHint(std::string_view key) {
  return DidYouMean(key, NearbyKeys(key));
}

std::string WhyNeverApplied(std::string_view key, const Configuration& configuration) {
  const AddressKey address_key = ReadAddressKey(key);
  const std::string_view plain = address_key.family.empty() ? WithoutVerb(key) : address_key.family;
  const auto condition = std::find_if(kConditions.begin(), kConditions.end(),
                                      [&](const Condition& one) { return EqualNoCase(one.key, plain); });
  if (condition == kConditions.end()) return {};
  std::string reason = condition->why_never(configuration);
  if (reason.empty() && !address_key.family.empty()) reason = WhyNeverForAddress(address_key, configuration);
  if (reason.empty()) return {};
  return "The reply never comes: " + reason + ".";
}

std::string UnknownMacro(std::string_view replacement) {
  const std::vector<std::string_view> names = MacroNames();
  for (std::size_t begin = replacement.find("{%"); begin != std::string_view::npos;
       begin = replacement.find("{%", begin + 2)) {
    const std::size_t end = replacement.find("%}", begin + 2);
    if (end == std::string_view::npos) break;
    const std::string_view name = replacement.substr(begin + 2, end - begin - 2);
    const bool known = std::any_of(names.begin(), names.end(),
                                   [&](std::string_view macro) { return EqualNoCase(macro, name); });
    if (!known) return std::string(replacement.substr(begin, end + 2 - begin));
  }
  return {};
}

std::string MacroHint(std::string_view macro) {
  std::vector<std::string> macros;
  for (const std::string_view name : MacroNames()) macros.push_back("{%" + std::string(name) + "%}");
  return DidYouMean(macro, macros);
}

}  // namespace trabex
