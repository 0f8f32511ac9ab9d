#include "app/check_configuration.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <memory>
#include <set>
#include <string_view>
#include <tuple>
#include <unordered_set>
#include <utility>

#include "app/check_places.h"
#include "app/check_response_keys.h"
#include "app/listen_endpoints.h"
#include "app/near_name.h"
#include "base/date_time.h"
#include "base/error.h"
#include "base/text.h"
#include "config/list_files.h"
#include "config/section_store.h"
#include "config/settings_table.h"
#include "net/socket_errors.h"
#include "platform/files.h"
#include "platform/permissions.h"
#include "platform/sandbox.h"

namespace trabex {

namespace {

using Severity = Finding::Severity;

bool Contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

// The findings so far, with the pieces of text that they are about; the places are told at the end.
class Findings final : public LoadObserver {
 public:
  void Add(Severity severity, std::string_view section, std::string_view key, std::string_view where,
           std::string text) {
    raw_.push_back({severity, std::string(section), std::string(key), std::move(text), where});
  }

  void BadLine(std::string_view section, std::string_view key, std::string_view where,
               const Error& error) override {
    std::string text = error.Description();
    if (section.empty() && where.starts_with('[') && where.ends_with(']')) {
      const std::string_view name = where.substr(1, where.size() - 2);
      const std::vector<std::string> names(kSectionNames.begin(), kSectionNames.end());
      return Add(Severity::kError, name, {}, where, text + DidYouMean(name, names));
    }
    Add(Severity::kError, section, key, where, std::move(text));
  }
  void BadValue(std::string_view section, std::string_view key, std::string_view where, int /*number*/,
                std::string_view description) override {
    std::string text(description);
    if (section == section_name::kListFiles) text += ListHint(key);
    // A message may show a part of it only.
    const bool shows_all = where.empty() || where == key || Contains(description, where);
    if (!shows_all) text += " (in " + Quoted(where) + ")";
    Add(Severity::kError, section, key, where, std::move(text));
    bad_keys_.emplace(ToLower(section), ToLower(key));
  }
  void ListRead(std::string_view section, std::string_view key,
                std::vector<std::string_view> places) override {
    places_[{ToLower(section), ToLower(key)}] = std::move(places);
  }

  void ListFileRead(std::string_view name, std::shared_ptr<const std::string> text) override {
    if (text != nullptr) list_files_.push_back({std::string(name), std::move(text)});
  }

  void AddListFiles(CheckPlaces& places) const {
    std::size_t number = 1;
    for (const ListFileText& file : list_files_) places.Add(number++, file.name, *file.text);
  }
  bool HasBadValue(std::string_view section, std::string_view key) const {
    return bad_keys_.contains({ToLower(section), ToLower(key)});
  }
  // Where entry `index` of a list stands.
  std::string_view EntryPlace(std::string_view section, std::string_view key, std::size_t index) const {
    const auto places = places_.find({ToLower(section), ToLower(key)});
    if (places == places_.end() || index >= places->second.size()) return {};
    return places->second[index];
  }

  // Where the entries of all lists stand.
  void NotePlaces(const CheckPlaces& places, SettingPlaces& noted) const {
    for (const auto& [name, pieces] : places_) noted.NoteEntries(name.first, name.second, pieces, places);
  }

  // In the order of the files and their lines, those without a line last.
  std::vector<Finding> Take(const CheckPlaces& places) const {
    struct Placed {
      CheckPlaces::Place place;
      const Raw* raw;
    };
    std::vector<Placed> placed;
    for (const Raw& raw : raw_) placed.push_back({places.PlaceOf(raw.where), &raw});
    const auto order = [](const Placed& one) {
      return std::tuple(one.place.line == 0, one.place.file, one.place.line);
    };
    std::stable_sort(placed.begin(), placed.end(),
                     [&](const Placed& a, const Placed& b) { return order(a) < order(b); });
    std::vector<Finding> findings;
    for (const Placed& one : placed) {
      findings.push_back({places.FileName(one.place.file), one.place.line, one.raw->severity,
                          one.raw->section, one.raw->key, one.raw->text});
    }
    return findings;
  }

 private:
  struct Raw {
    Severity severity;
    std::string section;
    std::string key;
    std::string text;
    std::string_view where;
  };
  using Name = std::pair<std::string, std::string>;  // section and key in lower case

  struct ListFileText {
    std::string name;
    std::shared_ptr<const std::string> text;
  };

  // For a key of section ListFiles that names no list.
  static std::string ListHint(std::string_view key) {
    if (FindList(key) != nullptr) return {};
    std::vector<std::string> names;
    for (const Setting& setting : AllSettings()) {
      if (MayHaveListFile(setting)) names.push_back(ListFileKey(setting));
    }
    return DidYouMean(key, names);
  }

  std::vector<Raw> raw_;
  std::vector<ListFileText> list_files_;
  std::set<Name> bad_keys_;
  std::map<Name, std::vector<std::string_view>> places_;
};

// Takes what the readers say without a place.
class PlacelessProblems final : public Log {
 public:
  explicit PlacelessProblems(Findings& findings) : findings_(findings) {}
  void LogLine(std::string_view /*message*/) override {}

 private:
  void TakeProblem(std::string_view message, std::string_view addition) override {
    std::string text(message);
    if (!addition.empty()) text.append(". ").append(addition);
    findings_.Add(Severity::kWarning, section_name::kCommon, "LocalHostName", {}, std::move(text));
  }

  Findings& findings_;
};

// A white list and the black list of its kind.
struct ListPair {
  std::string_view section;
  std::string_view white;
  std::string_view black;
};
constexpr ListPair kListPairs[] = {
    {section_name::kCommon, "IPWhiteList", "IPBlackList"},
    {section_name::kCommon, "HostsWhiteList", "HostsBlackList"},
    {section_name::kCommon, "SendersWhiteList", "SendersBlackList"},
    {section_name::kCommon, "RecipientsWhiteListLocal", "RecipientsBlackListLocal"},
    {section_name::kCommon, "RecipientsWhiteListRemote", "RecipientsBlackListRemote"},
    {section_name::kGreyListing, "IPWhiteList", "IPBlackList"},
    {section_name::kGreyListing, "HostsWhiteList", "HostsBlackList"},
};

std::string EntryText(const ListEntry& entry) {
  std::string text;
  for (const std::string& pattern : entry.patterns) text += (text.empty() ? "" : " ") + pattern;
  return text;
}

std::string RangeText(const IPRange& range) {
  return FormatIPAddress(range.low) + "-" + FormatIPAddress(range.high);
}

// `ip` is not the last address of its family.
IPAddress AddressAfter(const IPAddress& ip) {
  if (ip.IsIPv4()) return IPAddress::IPv4(ip.Number() + 1);
  IPAddress::IPv6Bytes bytes{};
  std::copy(ip.Bytes().begin(), ip.Bytes().end(), bytes.begin());
  for (auto byte = bytes.rbegin(); byte != bytes.rend() && ++*byte == 0; ++byte) {
  }
  return IPAddress::IPv6(bytes);
}

// Whether those of one family leave none of its addresses out.
bool TogetherHoldAll(std::vector<IPRange> ranges, bool is_ipv6) {
  std::erase_if(ranges, [&](const IPRange& range) { return range.low.IsIPv6() != is_ipv6; });
  if (ranges.empty()) return false;
  std::sort(ranges.begin(), ranges.end(), [](const IPRange& a, const IPRange& b) { return a.low < b.low; });
  IPRange joined = ranges.front();
  const IPAddress last = joined.low.PrefixEnd(0);
  for (const IPRange& range : ranges) {
    if (joined.high == last) break;
    if (range.low > AddressAfter(joined.high)) return false;
    joined.high = std::max(joined.high, range.high);
  }
  return mCommon::IsWholeFamily(joined);
}

// What the readers take as it is, held against what it is for.
class Rules {
 public:
  Rules(const CheckInputs& inputs, const Configuration& configuration, const SectionStore& store,
        Findings& findings)
      : inputs_(inputs), configuration_(configuration), store_(store), findings_(findings) {}

  void Apply(bool with_surroundings) {
    CheckKeys();
    CheckRelaying();
    for (const ListPair& pair : kListPairs) CheckPair(pair);
    CheckDefaults();
    CheckEmptyLists();
    CheckGreyListing();
    if (with_surroundings) {
      CheckPorts();
      CheckFolders();
    }
    CheckStatusHTTP();
    CheckResponseChanges();
  }

 private:
  const SectionTable::Entry* Entry(std::string_view section, std::string_view key) const {
    return store_.Section(section).Find(key);
  }
  std::string_view KeyPlace(std::string_view section, std::string_view key) const {
    const SectionTable::Entry* const entry = Entry(section, key);
    return entry == nullptr ? std::string_view() : entry->key;
  }
  void AtKey(Severity severity, std::string_view section, std::string_view key, std::string text) {
    findings_.Add(severity, section, key, KeyPlace(section, key), std::move(text));
  }

  void CheckKeys() {
    for (const std::string_view section :
         {section_name::kCommon, section_name::kGreyListing, section_name::kTLS, section_name::kService}) {
      for (const SectionTable::Entry& entry : store_.Section(section).Entries()) {
        if (FindSetting(section, entry.key) != nullptr) continue;
        std::vector<std::string> names;
        for (const Setting* const setting : SettingsInDumpOrder(section)) names.emplace_back(setting->key);
        findings_.Add(Severity::kError, section, entry.key, entry.key,
                      "Unknown key." + DidYouMean(entry.key, names));
      }
    }
  }

  void CheckRelaying() {
    constexpr std::string_view kText = "Every client may send mail to every domain: ";
    CheckLocalIPs(std::string(kText));
    for (std::size_t index = 0; index < configuration_.LocalDomains.Count(); ++index) {
      const ListEntry entry = configuration_.LocalDomains.Entry(index);
      if (!MatchesEveryDomain(entry)) continue;
      findings_.Add(Severity::kError, section_name::kCommon, "LocalDomains",
                    findings_.EntryPlace(section_name::kCommon, "LocalDomains", index),
                    std::string(kText) + Quoted(EntryText(entry)) + " matches every domain.");
    }
  }

  void CheckLocalIPs(const std::string& text) {
    const std::vector<IPRange> ranges = configuration_.LocalIPs.Ranges();
    std::array<bool, 2> is_told = {false, false};  // of IPv4 and IPv6
    for (std::size_t index = 0; index < ranges.size(); ++index) {
      if (!mCommon::IsWholeFamily(ranges[index])) continue;
      is_told[ranges[index].low.IsIPv6() ? 1 : 0] = true;
      const std::string_view place = findings_.EntryPlace(section_name::kCommon, "LocalIPs", index);
      findings_.Add(Severity::kError, section_name::kCommon, "LocalIPs", place,
                    text + (place.empty() ? Quoted(RangeText(ranges[index])) : Quoted(place)) +
                        " holds all addresses.");
    }
    // Halves of the addresses do the same as all of them.
    for (const bool is_ipv6 : {false, true}) {
      if (is_told[is_ipv6 ? 1 : 0] || !TogetherHoldAll(ranges, is_ipv6)) continue;
      AtKey(Severity::kError, section_name::kCommon, "LocalIPs",
            text + "its entries together hold all addresses of " + (is_ipv6 ? "IPv6." : "IPv4."));
    }
  }

  // A value of the white list that the black list names too.
  void CheckPair(const ListPair& pair) {
    const Setting& white = *FindSetting(pair.section, pair.white);
    const Setting& black = *FindSetting(pair.section, pair.black);
    std::unordered_set<std::string, HashNoCase, SameNoCase> texts;
    for (std::string& text : Texts(black)) texts.insert(std::move(text));
    const std::vector<std::string> in_white = Texts(white);
    for (std::size_t index = 0; index < in_white.size(); ++index) {
      if (!texts.contains(in_white[index])) continue;
      const std::string_view place = findings_.EntryPlace(pair.section, pair.white, index);
      findings_.Add(Severity::kWarning, pair.section, pair.white, place,
                    Quoted(place.empty() ? in_white[index] : place) + " stands in " +
                        std::string(pair.black) + " too.");
    }
  }

  // The entries of a list, so that the same ones have the same text.
  std::vector<std::string> Texts(const Setting& setting) const {
    std::vector<std::string> texts;
    if (setting.kind == SettingKind::kRangeList) {
      for (const IPRange& range : FieldOf<IPRangeList>(configuration_, setting).Ranges()) {
        texts.push_back(RangeText(range));
      }
      return texts;
    }
    const auto& list = FieldOf<ExpressionList>(configuration_, setting);
    for (std::size_t index = 0; index < list.Count(); ++index) texts.push_back(EntryText(list.Entry(index)));
    return texts;
  }

  void CheckDefaults() {
    for (const std::string_view key : {"BindIP", "ServerPort"}) {
      if (!findings_.HasBadValue(section_name::kCommon, key)) continue;
      AtKey(Severity::kWarning, section_name::kCommon, key,
            mCommon::DefaultTaken(FindSetting(section_name::kCommon, key)->default_text));
    }
  }

  bool IsEmptyList(const Setting& setting) const {
    if (setting.kind == SettingKind::kRangeList || setting.kind == SettingKind::kPartialRangeList) {
      return FieldOf<IPRangeList>(configuration_, setting).Count() == 0;
    }
    const bool is_expressions =
        setting.kind == SettingKind::kAddressList || setting.kind == SettingKind::kPlainList;
    return is_expressions && FieldOf<ExpressionList>(configuration_, setting).Count() == 0;
  }

  // Who is refused by a list without any entry; "" when nobody is.
  std::string RefusedByEmpty(std::string_view key) const {
    const auto unless = [](bool has_white_list, std::string_view white) {
      return " It refuses everybody" +
             (has_white_list ? " who is not in " + std::string(white) + "." : std::string("."));
    };
    const Configuration& c = configuration_;
    if (key == "IPAllowList") return unless(c.IPWhiteList.Count() > 0, "IPWhiteList");
    if (key == "SendersAllowList") return unless(c.SendersWhiteList.Count() > 0, "SendersWhiteList");
    if (key == "HostsAllowList" && c.ValidateRDNS != 0) {
      return unless(c.HostsWhiteList.Count() > 0, "HostsWhiteList");
    }
    if (key == "RecipientsAllowListLocal") {
      return unless(c.RecipientsWhiteListLocal.Count() > 0, "RecipientsWhiteListLocal");
    }
    if (key == "RecipientsAllowListRemote") {
      return unless(c.RecipientsWhiteListRemote.Count() > 0, "RecipientsWhiteListRemote");
    }
    return {};
  }

  void CheckEmptyLists() {
    for (const Setting& setting : AllSettings()) {
      if (!IsListKind(setting.kind) || !findings_.HasBadValue(setting.section, setting.key)) continue;
      if (!IsEmptyList(setting)) continue;
      AtKey(Severity::kWarning, setting.section, setting.key,
            "Bad entries have left the list empty." + RefusedByEmpty(setting.key));
    }
    if (configuration_.LocalDomains.Count() == 0) {
      AtKey(Severity::kWarning, section_name::kCommon, "LocalDomains",
            "The list is empty: no mail of remote clients is taken.");
    }
  }

  void CheckGreyListing() {
    const GreyListingSettings& grey = configuration_.GreyListing;
    if (!grey.Enabled || grey.HostsBlackList.Count() != 1) return;
    if (grey.HostsBlackList.Entry(0).patterns != std::vector<std::string>{"[]"}) return;
    const auto minutes = std::to_string(std::llround(grey.BlackListDelay * kMinutesPerDay));
    AtKey(Severity::kWarning, section_name::kGreyListing, "HostsBlackList",
          "Clients without a name in DNS wait BlackListDelay, " + minutes + " minutes.");
  }

  void CheckPorts() {
    const auto check = [this](std::string_view key, std::int32_t port) {
      if (inputs_.may_listen_on(port)) return;
      AtKey(Severity::kWarning, section_name::kCommon, key,
            "This user has no right to listen on port " + std::to_string(port) + ".");
    };
    check("BindPort", configuration_.BindPort);
    if (configuration_.BindPortTLS != 0) check("BindPortTLS", configuration_.BindPortTLS);
  }

  void CheckFolder(std::string_view section, std::string_view key, const std::string& folder,
                   std::string_view what) {
    const auto trouble = [&]() -> std::string_view {
      switch (StateOfFolder(folder)) {
        case FolderState::kUsable:
          break;
        case FolderState::kMissing:
          return "missing.";
        case FolderState::kNotWritable:
          return "not writable for this user.";
        case FolderState::kOutside:
          return "outside of those that Sandbox allows; it can be used from the next start on.";
      }
      return {};
    }();
    if (trouble.empty()) return;
    AtKey(Severity::kError, section, key,
          "The folder of the " + std::string(what) + ", " + Quoted(folder) + ", is " + std::string(trouble));
  }

  void CheckFolders() {
    std::string log_folder;
    if (configuration_.Log != log_mode::kOff) {
      std::string folder = NativePath(configuration_.LogPath);
      while (folder.size() > 1 && folder.ends_with(kPathSeparator)) folder.pop_back();
      log_folder = folder;
      // The log makes its last level.
      if (StateOfFolder(folder) == FolderState::kMissing && !FindFileIdentity(folder))
        folder = FolderOf(folder);
      CheckFolder(section_name::kCommon, "LogPath", folder, "log");
    }
    const std::string& json_log = configuration_.Service.JsonLog;
    if (!json_log.empty() && json_log != kStandardOutput) {
      const std::string folder = FolderOf(NativePath(json_log));
      const bool is_there = FindFileIdentity(NativePath(json_log)) && !SandboxForbidsWritingIn(folder);
      if (!is_there && folder != log_folder)
        CheckFolder(section_name::kService, "JsonLog", folder, "log in JSON");
    }
    if (configuration_.GreyListing.Enabled) {
      CheckFolder(section_name::kGreyListing, "Database",
                  FolderOf(NativePath(configuration_.GreyListing.Database)), "database");
    }
  }

  void CheckStatusHTTP() {
    const Endpoint& endpoint = configuration_.Service.status_endpoint;
    if (endpoint.port == 0 || endpoint.address.IsLoopback()) return;
    AtKey(Severity::kWarning, section_name::kService, "StatusHTTP",
          Quoted(configuration_.Service.StatusHTTP) + " is reached from other machines too.");
  }

  void CheckResponseChanges() {
    constexpr std::string_view kSection = section_name::kResponseChanges;
    for (const SectionTable::Entry& entry : store_.Section(kSection).Entries()) {
      if (!IsResponseKey(entry.key)) {
        findings_.Add(Severity::kError, kSection, entry.key, entry.key,
                      "No reply has this key." + ResponseKeyHint(entry.key));
        continue;
      }
      const std::string reason = WhyNeverApplied(entry.key, configuration_);
      if (!reason.empty()) findings_.Add(Severity::kWarning, kSection, entry.key, entry.key, reason);
    }
    for (const cReplaces& replaces : configuration_.ResponseChanges.Lists()) {
      for (std::size_t index = 0; index < replaces.Count(); ++index) {
        const std::string macro = UnknownMacro(replaces.Rules()[index].Replacement());
        if (macro.empty()) continue;
        findings_.Add(Severity::kError, kSection, replaces.Name(),
                      findings_.EntryPlace(kSection, replaces.Name(), index),
                      "Unknown macro " + Quoted(macro) + "." + MacroHint(macro));
      }
    }
  }

  const CheckInputs& inputs_;
  const Configuration& configuration_;
  const SectionStore& store_;
  Findings& findings_;
};

// All texts of letters and dots of up to this size that are domains with a dot, and a long one.
std::vector<std::string> SampleDomains() {
  constexpr std::size_t kMaxSize = 8;
  std::vector<std::string> domains = {"aaaaaaaaaaaaaaaaaaaa.aaaaaaaaaaaaaaa.aaaaaaa"};
  for (std::size_t size = 3; size <= kMaxSize; ++size) {
    for (unsigned dots = 1; dots < 1U << size; ++dots) {
      std::string domain;
      for (std::size_t at = 0; at < size; ++at) domain += (dots >> at & 1) != 0 ? '.' : 'a';
      const bool is_domain = !domain.starts_with('.') && !domain.ends_with('.') && !Contains(domain, "..");
      if (is_domain) domains.push_back(std::move(domain));
    }
  }
  return domains;
}

bool MatchesEveryDomain(const std::string& pattern) {
  constexpr std::string_view kNot = "[]";
  if (pattern.starts_with(kNot) && pattern.size() > kNot.size()) {
    // What matches no text with a dot leaves all of these to its opposite.
    return pattern.find_first_of("*?.[", kNot.size()) == std::string::npos;
  }
  // Anything else stands for some letter.
  if (pattern.find_first_not_of("*?.") != std::string::npos) return false;
  static const std::vector<std::string> domains = SampleDomains();
  return std::all_of(domains.begin(), domains.end(),
                     [&](const std::string& domain) { return mText::LikeText(domain, pattern); });
}

}  // namespace

bool MatchesEveryDomain(const ListEntry& entry) {
  return !entry.patterns.empty() &&
         std::all_of(entry.patterns.begin(), entry.patterns.end(),
                     [](const std::string& pattern) { return MatchesEveryDomain(pattern); });
}

CheckedConfiguration CheckConfiguration(const CheckInputs& inputs, Configuration initial) {
  const std::string& path = inputs.early.ini_path;
  IniText ini;
  try {
    ini = mCommon::TakeIniFile(path);
  } catch (const Error& error) {
    CheckedConfiguration checked{.configuration = std::move(initial)};
    checked.findings.push_back({.file = inputs.file,
                                .text = "Error reading initialization file " + Quoted(path) +
                                        ". Error number: " + std::to_string(error.Number()) +
                                        ", Description: " + error.Description()});
    return checked;
  }
  return CheckText(inputs, std::move(ini), std::move(initial));
}

CheckedConfiguration CheckText(const CheckInputs& inputs, IniText ini, Configuration initial) {
  CheckedConfiguration checked{.configuration = std::move(initial), .ini = std::move(ini), .was_read = true};
  Findings findings;
  CheckPlaces places;
  PlacelessProblems log(findings);
  places.Add(0, inputs.file, checked.ini.text);
  EarlyKeyInputs early = inputs.early;
  early.observer = &findings;
  ReadEarlyKeysFromText(checked.ini.text, early, checked.configuration, log);

  SectionStore store;
  const IniErrors errors{log, true, &findings};
  mCommon::ReadIniText(inputs.early.ini_path, checked.ini.text, store, errors);
  places.Add(0, inputs.file, store.Text());
  SettingContext context = inputs.context;
  context.list_files = &checked.list_files;
  ReadSettings(store, errors, context, checked.configuration);
  Rules(inputs, checked.configuration, store, findings).Apply(inputs.surroundings);
  findings.AddListFiles(places);
  if (inputs.places != nullptr) {
    inputs.places->NoteKeys(store, places);
    findings.NotePlaces(places, *inputs.places);
  }
  checked.findings = findings.Take(places);

  const SectionTable::Entry* const server = store.Section(section_name::kCommon).Find("ServerIP");
  const std::string_view where = server == nullptr ? std::string_view() : server->key;
  checked.server_finding = {.file = inputs.file,
                            .line = places.PlaceOf(where).line,
                            .section = std::string(section_name::kCommon),
                            .key = "ServerIP"};
  return checked;
}

void CheckServer(const AddressAnswer& answer, const std::vector<IPAddress>& own,
                 CheckedConfiguration& checked) {
  const Configuration& configuration = checked.configuration;
  const auto add = [&](Severity severity, std::string text) {
    Finding finding = checked.server_finding;
    finding.severity = severity;
    finding.text = std::move(text);
    checked.findings.push_back(std::move(finding));
  };
  if (answer.error != 0) {
    return add(Severity::kWarning, Quoted(configuration.ServerIP) +
                                       " is not found now: " + std::string(SocketErrorText(answer.error)));
  }
  for (const ListenEndpoint& endpoint : ListenEndpoints(configuration)) {
    try {
      if (endpoint.port != configuration.ServerPort || !LoopsBack(endpoint, answer.addresses, own)) continue;
    } catch (const Error& error) {
      // An entry of BindIP that only looks like an address.
      add(Severity::kError, error.Description());
      continue;
    }
    return add(Severity::kError,
               "Loop detected: Server IP address and port point to listening address and port.");
  }
}

}  // namespace trabex
