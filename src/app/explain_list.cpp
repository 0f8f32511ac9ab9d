#include "app/explain_list.h"

#include <array>
#include <cstdint>
#include <string_view>
#include <utility>

#include "app/near_name.h"
#include "app/printable.h"
#include "base/error.h"
#include "base/text.h"
#include "base/visible_text.h"
#include "config/list_files.h"
#include "config/section_store.h"
#include "config/settings_table.h"
#include "match/ip_range.h"
#include "match/mText.h"
#include "net/peer_name.h"
#include "proxy/dialogue/mailbox.h"
#include "report/json_line.h"

namespace trabex {

namespace {

constexpr std::string_view kCommon = section_name::kCommon;
constexpr std::string_view kGreyListing = section_name::kGreyListing;

[[noreturn]] void Refuse(std::string description) {
  throw Error(error_number::kBadValue, "ExplainList", std::move(description));
}

bool IsRanges(const Setting& setting) {
  return setting.kind == SettingKind::kRangeList || setting.kind == SettingKind::kPartialRangeList;
}

// Whether entries are held against something: lists of extensions are not.
bool IsMatched(const Setting& setting) {
  return IsRanges(setting) || setting.kind == SettingKind::kAddressList ||
         setting.kind == SettingKind::kPlainList;
}

const Setting& FindAsked(std::string_view name) {
  const Setting* found = FindList(name);
  for (const std::string_view section : {kCommon, kGreyListing}) {
    if (found == nullptr) found = FindSetting(section, name);
  }
  if (found != nullptr && IsMatched(*found)) return *found;
  std::vector<std::string> names;
  for (const Setting& setting : AllSettings()) {
    if (!IsMatched(setting)) continue;
    names.emplace_back(setting.key);
    names.push_back(std::string(setting.section) + "." + std::string(setting.key));
  }
  Refuse(Quoted(name) + " is no list that something is looked for in." + DidYouMean(name, names));
}

// What the list is held against in a session that has this value.
enum class ValueKind { kAddress, kHost, kHelo, kDomain, kMailbox };

ValueKind KindOf(const Setting& setting) {
  if (IsRanges(setting)) return ValueKind::kAddress;
  if (setting.key.starts_with("Hosts")) return ValueKind::kHost;
  if (setting.key == "HELOBlackList") return ValueKind::kHelo;
  if (setting.key == "LocalDomains") return ValueKind::kDomain;
  return ValueKind::kMailbox;
}

std::string ReadValue(ValueKind kind, const std::string& text) {
  if (HoldsControl(text)) Refuse(Quoted(text) + " is nothing that a list could hold.");
  if (kind == ValueKind::kHost) {
    // A client without a name.
    if (text.empty() || text == "none") return {};
    if (!IsPlainHostName(text)) Refuse(Quoted(text) + " is no name of a host.");
  }
  if (kind != ValueKind::kMailbox) return text;
  std::string_view address = text;
  if (address.size() >= 2 && address.starts_with('<') && address.ends_with('>')) {
    address = address.substr(1, address.size() - 2);
  }
  const auto mailbox = NormalizeMailbox(address);
  if (!mailbox && !HasRouteInLocalPart(address)) Refuse(Quoted(text) + " is no mail address.");
  return mailbox.value_or(std::string(address));
}

void FindMatches(const Configuration& configuration, const Setting& setting, const SettingPlaces& places,
                 ListExplanation& explanation) {
  const auto add = [&](std::string entry, std::size_t index) {
    explanation.matches.push_back({explanation.section, explanation.key, std::move(entry),
                                   places.OfEntry(setting.section, setting.key, index), true});
  };
  if (IsRanges(setting)) {
    const auto address = ParseIPAddress(explanation.value);
    if (!address) Refuse(Quoted(explanation.value) + " is no IP address.");
    const std::vector<IPRange> ranges = FieldOf<IPRangeList>(configuration, setting).Ranges();
    for (std::size_t i = 0; i < ranges.size(); ++i) {
      if (mCommon::IPInRange(*address, ranges[i])) add(mCommon::FormatRange(ranges[i]), i);
    }
    return;
  }
  const auto& list = FieldOf<ExpressionList>(configuration, setting);
  for (std::size_t i = 0; i < list.Count(); ++i) {
    if (mText::MatchEntry(explanation.value, list.Entry(i), false)) add(EntryText(list, i), i);
  }
}

// Some bits of a setting say for whom a list is consulted.
struct Limit {
  std::string_view text;
  bool is_consulted;
};

Limit LimitOfBits(bool local, bool remote) {
  if (local && remote) return {"", true};
  if (local) return {"consulted for local clients only", true};
  if (remote) return {"consulted for remote clients only", true};
  return {"not consulted", false};
}

void FindLimits(const Configuration& c, const SettingPlaces& places, ListExplanation& explanation) {
  const GroundNotes notes(c, places);
  const auto limit = [&](const Limit& found, const Ground& by) {
    explanation.limits = found.text;
    explanation.is_consulted = found.is_consulted;
    if (!found.text.empty()) explanation.limited_by = by;
  };
  const std::string& key = explanation.key;
  if (explanation.section == kGreyListing) {
    if (!c.GreyListing.Enabled) {
      return limit({"not consulted", false}, notes.Value(kGreyListing, "Enabled"));
    }
    explanation.limits = LimitOfBits(false, true).text;
    return;
  }
  if (key.starts_with("Hosts")) {
    return limit(LimitOfBits((c.ValidateRDNS & validate_rdns::kLocalClients) != 0,
                             (c.ValidateRDNS & validate_rdns::kRemoteClients) != 0),
                 notes.Value(kCommon, "ValidateRDNS"));
  }
  if (key == "HELOBlackList") {
    return limit(LimitOfBits((c.ValidateHELO & validate_helo::kBlackListLocal) != 0,
                             (c.ValidateHELO & validate_helo::kBlackListRemote) != 0),
                 notes.Value(kCommon, "ValidateHELO"));
  }
  const bool of_local = key.ends_with("Local") || key == "RestrictedSenders";
  const bool of_remote = key.ends_with("Remote") || key == "PrivateRecipients";
  if (of_local && c.LocalIPs.Count() == 0) {
    return limit({"not consulted, no client is local", false}, notes.NoEntry(kCommon, "LocalIPs"));
  }
  if (of_remote && c.LocalDomains.Count() == 0) {
    return limit({"not consulted, no mail of remote clients is taken", false},
                 notes.NoEntry(kCommon, "LocalDomains"));
  }
  if (of_local || of_remote) explanation.limits = LimitOfBits(of_local, of_remote).text;
}

}  // namespace

ListExplanation ExplainList(const ExplainedList& asked, const Configuration& configuration,
                            const SettingPlaces& places) {
  const Setting& setting = FindAsked(asked.list);
  ListExplanation explanation{.section = std::string(setting.section),
                              .key = std::string(setting.key),
                              .value = ReadValue(KindOf(setting), asked.value)};
  FindMatches(configuration, setting, places, explanation);
  FindLimits(configuration, places, explanation);
  return explanation;
}

std::string FormatListExplanation(const ListExplanation& explanation) {
  const std::string name = "[" + explanation.section + "] " + explanation.key;
  std::string text;
  for (const Ground& ground : explanation.matches) text += Printable(FormatGround(ground)) + "\n";
  if (explanation.matches.empty()) {
    text += Printable(name + ": no entry matches " + Quoted(explanation.value)) + "\n";
  }
  std::string consulted = name + ": ";
  consulted += explanation.limits.empty() ? "consulted for all clients" : explanation.limits;
  if (explanation.limited_by) consulted += ", by " + FormatGround(*explanation.limited_by);
  return text + Printable(consulted) + "\n";
}

std::string FormatListExplanationJson(const ListExplanation& explanation) {
  std::string text;
  JsonLine json(text);
  json.Begin();
  json.Text("section", explanation.section);
  json.Text("key", explanation.key);
  json.Text("value", explanation.value);
  json.OpenList("matches");
  for (const Ground& ground : explanation.matches) {
    json.OpenElement();
    json.Text("entry", ground.entry);
    if (ground.place.line != 0) {
      json.Text("file", ground.place.file);
      json.Number("line", static_cast<std::int64_t>(ground.place.line));
    }
    json.CloseObject();
  }
  json.CloseList();
  json.Truth("consulted", explanation.is_consulted);
  if (!explanation.limits.empty()) json.Text("limits", explanation.limits);
  json.End();
  return text;
}

}  // namespace trabex
