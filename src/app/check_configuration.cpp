#include "app/check_configuration.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "app/check_findings.h"
#include "app/check_places.h"
#include "app/check_response_keys.h"
#include "app/listen_endpoints.h"
#include "app/near_name.h"
#include "app/open_relay.h"
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

// Takes what the readers say without a place.
class PlacelessProblems final : public Log {
 public:
  explicit PlacelessProblems(CheckFindings& findings) : findings_(findings) {}
  void LogLine(std::string_view /*message*/) override {}

 private:
  void TakeProblem(std::string_view message, std::string_view addition) override {
    std::string text(message);
    if (!addition.empty()) text.append(". ").append(addition);
    findings_.Add(Severity::kWarning, section_name::kCommon, "LocalHostName", {}, std::move(text));
  }

  CheckFindings& findings_;
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

// What the readers take as it is, held against what it is for.
class Rules {
 public:
  Rules(const CheckInputs& inputs, const Configuration& configuration, const SectionStore& store,
        CheckFindings& findings)
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

  // Says of a folder whose disk does not answer that it does not.
  bool Answers(std::string_view section, std::string_view key, const std::string& folder,
               std::string_view what) {
    const auto& unanswered = inputs_.unanswered;
    if (std::find(unanswered.begin(), unanswered.end(), folder) == unanswered.end()) return true;
    AtKey(Severity::kWarning, section, key,
          "The disk with the folder of the " + std::string(what) + ", " + Quoted(folder) +
              ", does not answer.");
    return false;
  }

  void CheckFolders() {
    std::string log_folder;
    if (configuration_.Log != log_mode::kOff &&
        Answers(section_name::kCommon, "LogPath", NativePath(configuration_.LogPath), "log")) {
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
      if (Answers(section_name::kService, "JsonLog", folder, "log in JSON"))
        CheckJsonLog(NativePath(json_log), folder, log_folder);
    }
    const std::string database_folder = FolderOf(NativePath(configuration_.GreyListing.Database));
    if (configuration_.GreyListing.Enabled &&
        Answers(section_name::kGreyListing, "Database", database_folder, "database")) {
      CheckFolder(section_name::kGreyListing, "Database", database_folder, "database");
    }
  }

  void CheckJsonLog(const std::string& file, const std::string& folder, const std::string& log_folder) {
    const bool is_there = FindFileIdentity(file) && !SandboxForbidsWritingIn(folder);
    if (!is_there && folder != log_folder)
      CheckFolder(section_name::kService, "JsonLog", folder, "log in JSON");
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
  CheckFindings& findings_;
};

}  // namespace

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
  CheckFindings findings;
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
