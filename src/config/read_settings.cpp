#include "config/read_settings.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdint>
#include <map>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "base/date_time.h"
#include "base/error.h"
#include "base/numbers.h"
#include "base/text.h"
#include "config/certificate_list.h"
#include "config/ini_paths.h"
#include "config/list_files.h"
#include "config/list_readers.h"
#include "config/settings_table.h"
#include "config/typed_readers.h"
#include "platform/files.h"

namespace trabex {

namespace {

std::int32_t DefaultNumber(const Setting& setting) {
  const auto number = ParseInteger(setting.default_text);
  assert(number);
  return *number;
}

std::int64_t Minutes(double days) {
  return std::llround(days * kMinutesPerDay);
}

// `size` without its fraction of a byte.
FixedPoint RoundedDown(FixedPoint size) {
  const FixedPoint rest = size % kFixedPointOne;
  return size - (rest < 0 ? rest + kFixedPointOne : rest);
}

// Reads single settings of one load.
class SettingReader {
 public:
  SettingReader(const SectionStore& store, const IniErrors& errors, const SettingContext& context,
                Configuration& configuration)
      : store_(store), errors_(errors), context_(context), configuration_(configuration) {}

  void Read(const Setting& setting) {
    switch (setting.kind) {
      case SettingKind::kText:
        Field<std::string>(setting) = Text(setting);
        break;
      case SettingKind::kIPAddresses:
        ReadIPAddresses(setting);
        break;
      case SettingKind::kChoice:
        Field<std::string>(setting) =
            mCommon::GetChoice(errors_, Section(setting), setting.key, setting.default_text, setting.choices);
        break;
      case SettingKind::kCiphers:
        Field<std::string>(setting) = Ciphers(setting);
        break;
      case SettingKind::kFile:
        Field<std::string>(setting) = mCommon::ResolveFilePath(Text(setting), context_.program_directory);
        break;
      case SettingKind::kOutput:
        Field<std::string>(setting) = Output(setting);
        break;
      case SettingKind::kEndpoint:
        ReadEndpoint(setting);
        break;
      case SettingKind::kHostName:
        Field<std::string>(setting) = HostName(setting);
        break;
      case SettingKind::kDatabase:
        Field<std::string>(setting) = mCommon::ResolveDatabasePath(Text(setting), context_.program_directory);
        break;
      case SettingKind::kLogFolder:
        assert(false);  // early keys only
        break;
      case SettingKind::kInteger:
        Field<std::int32_t>(setting) = Integer(setting, setting.min);
        break;
      case SettingKind::kTLSPort:
        Field<std::int32_t>(setting) = TLSPort(setting);
        break;
      case SettingKind::kBoolean:
        Field<bool>(setting) = Integer(setting, setting.min) != 0;
        break;
      case SettingKind::kMinutes:
        Field<double>(setting) = Integer(setting, setting.min) / kMinutesPerDay;
        break;
      case SettingKind::kLifetime:
        Field<double>(setting) = Integer(setting, LeastLifetime()) / kMinutesPerDay;
        break;
      case SettingKind::kSize:
        Field<FixedPoint>(setting) = Size(setting);
        break;
      case SettingKind::kAddressList:
        ReadList(setting, mCommon::kAddressListForm);
        break;
      case SettingKind::kPlainList:
        ReadList(setting, mCommon::kPlainListForm);
        break;
      case SettingKind::kExtensionList:
        ReadList(setting, mCommon::kExtensionListForm);
        break;
      case SettingKind::kRangeList:
        ReadRanges(setting, mCommon::GetIPRangeList, DefaultRanges(setting));
        break;
      case SettingKind::kPartialRangeList:
        ReadRanges(setting, mCommon::GetPartialIPRangeList, setting.default_text);
        break;
      case SettingKind::kCertificateList:
        ReadCertificates(setting);
        break;
      case SettingKind::kNameList:
        Field<std::vector<std::string>>(setting) =
            mCommon::GetChoices(errors_, Section(setting), setting.key, setting.choices);
        break;
    }
  }

  // The files of the lists, whose entries Read takes from then on.
  void ReadListFiles() {
    const std::vector<ListFile> in_force = std::exchange(configuration_.ListFiles, {});
    const SectionTable& section = store_.Section(section_name::kListFiles);
    for (const SectionTable::Entry& entry : section.Entries()) {
      if (FindList(entry.key) != nullptr) continue;
      mCommon::ReportConfigError(errors_, section.Name(), entry.key, error_number::kBadValue,
                                 "No list has this name.", mCommon::kEntryLeftOut, entry.key);
    }
    for (const Setting& setting : AllSettings()) {
      if (!MayHaveListFile(setting)) continue;
      const SectionTable::Entry* const entry = section.Find(ListFileKey(setting));
      if (entry == nullptr || entry->first_value.empty()) continue;
      ReadListFile(setting, *entry, FindListFile(in_force, setting));
    }
  }

  // What depends on settings that are read later than the one that is wrong.
  void CheckTogether() {
    TLSSettings& tls = configuration_.TLS;
    if (tls.ClientCertificates == client_certificates::kRequired && tls.ClientCA.empty()) {
      ResetNumber(FindSetting(section_name::kTLS, "ClientCertificates"), "ClientCA expected.");
    }
    if (configuration_.BindPortTLS != 0 && tls.Certificate.empty()) {
      ResetNumber(FindSetting(section_name::kCommon, "BindPortTLS"),
                  NoTLSPortText(configuration_.BindPortTLS));
    }
  }

 private:
  template <class Value>
  Value& Field(const Setting& setting) {
    return FieldOf<Value>(configuration_, setting);
  }
  void ReadCertificates(const Setting& setting) {
    auto& list = Field<std::vector<CertificateFiles>>(setting);
    list = mCommon::GetCertificateList(errors_, Section(setting), setting.key, context_.program_directory);
    auto& misspelled = configuration_.TLS.misspelled_certificates;
    misspelled.clear();
    if (list.empty()) misspelled = mCommon::CertificateLines(Section(setting), setting.key);
  }
  const SectionTable& Section(const Setting& setting) const { return store_.Section(setting.section); }

  std::string Text(const Setting& setting) const {
    return mCommon::GetString(errors_, Section(setting), setting.key, setting.default_text);
  }

  void ReadIPAddresses(const Setting& setting) {
    mCommon::IPAddresses list =
        mCommon::GetIPAddresses(errors_, Section(setting), setting.key, setting.default_text);
    Field<std::string>(setting) = std::move(list.text);
    configuration_.BindAddresses = std::move(list.addresses);
  }

  std::string Output(const Setting& setting) const {
    std::string text = Text(setting);
    return text == kStandardOutput ? text : mCommon::ResolveFilePath(text, context_.program_directory);
  }

  void ReadEndpoint(const Setting& setting) {
    configuration_.Service.status_endpoint =
        mCommon::GetEndpoint(errors_, Section(setting), setting.key, Field<std::string>(setting));
  }

  std::string Ciphers(const Setting& setting) const {
    const std::string ciphers = Text(setting);
    if (ciphers.empty() || !context_.accepts_ciphers || context_.accepts_ciphers(ciphers)) return ciphers;
    Report(setting, "Inadmissible string: " + Quoted(ciphers) + ".");
    return std::string(setting.default_text);
  }

  std::string HostName(const Setting& setting) const {
    std::string name = Text(setting);
    if (!name.empty()) return name;
    try {
      return context_.local_host_name();
    } catch (const Error& error) {
      errors_.log.LogProblem("Unable to get local host name. Error number: " +
                                 std::to_string(error.Number()) + ", Description: " + error.Description(),
                             "It is called localhost.");
      return "localhost";
    }
  }

  std::int32_t Integer(const Setting& setting, std::int64_t min) const {
    return mCommon::GetInteger(errors_, Section(setting), setting.key, DefaultNumber(setting), min,
                               setting.max);
  }

  std::int32_t TLSPort(const Setting& setting) const {
    const std::int32_t port = Integer(setting, setting.min);
    if (port == 0 || port != configuration_.BindPort) return port;
    Report(setting, NoTLSPortText(port));
    return DefaultNumber(setting);
  }

  static std::string NoTLSPortText(std::int32_t port) {
    return "Value " + std::to_string(port) + " is no port for TLS.";
  }

  void Report(const Setting& setting, std::string_view description) const {
    const SectionTable::Entry* const entry = Section(setting).Find(setting.key);
    mCommon::ReportConfigError(errors_, setting.section, setting.key, error_number::kBadValue, description,
                               mCommon::DefaultTaken(setting.default_text),
                               entry == nullptr ? std::string_view() : entry->first_value);
  }

  // Reports that the value cannot be used with those of other settings, and takes the default.
  void ResetNumber(const Setting* setting, std::string_view description) {
    assert(setting != nullptr);
    Report(*setting, description);
    Field<std::int32_t>(*setting) = DefaultNumber(*setting);
  }

  // Computed in 64 bits: the delays may be the greatest number of minutes there is.
  std::int64_t LeastLifetime() const {
    const GreyListingSettings& grey = configuration_.GreyListing;
    return Minutes(std::max(grey.Delay, grey.BlackListDelay)) + 1;
  }

  FixedPoint Size(const Setting& setting) const {
    return RoundedDown(mCommon::GetSize(errors_, Section(setting), setting.key,
                                        DefaultNumber(setting) * kFixedPointOne, setting.min * kFixedPointOne,
                                        setting.max * kFixedPointOne));
  }

  // Clients of IPv6 come only where there is a listener for them, or a balancer that may name them.
  std::string_view DefaultRanges(const Setting& setting) const {
    const std::vector<IPAddress>& bound = configuration_.BindAddresses;
    const bool uses_ipv6 =
        configuration_.ProxyProtocolFrom.Count() > 0 ||
        std::any_of(bound.begin(), bound.end(), [](const IPAddress& address) { return address.IsIPv6(); });
    return uses_ipv6 && !setting.default_with_ipv6.empty() ? setting.default_with_ipv6 : setting.default_text;
  }

  TakenListFile TakeListFile(const std::string& path, const char* source) const {
    if (context_.list_files != nullptr) {
      const auto known = context_.list_files->find(path);
      if (known != context_.list_files->end()) return known->second;
    }
    const std::string native_path = NativePath(path);
    // Before the text, so that a change while reading shows later.
    const std::int64_t stamp = FileModificationStamp(native_path, source);
    TakenListFile taken{stamp, std::make_shared<const std::string>(ReadWholeFile(native_path, source))};
    if (context_.list_files != nullptr) context_.list_files->emplace(path, taken);
    return taken;
  }

  // `in_force`: the list's file as of now, or nullptr.
  void ReadListFile(const Setting& setting, const SectionTable::Entry& entry, const ListFile* in_force) {
    constexpr const char* kSource = "mCommon.ReadListFiles";
    ListFile file{.list = &setting,
                  .path = mCommon::ResolveFilePath(entry.first_value, context_.program_directory)};
    std::shared_ptr<const std::string> text;
    try {
      const TakenListFile taken = TakeListFile(file.path, kSource);
      file.stamp = taken.stamp;
      text = taken.text;
    } catch (const Error& error) {
      file.stamp.reset();
      const std::string line =
          "Unable to read list file " + Quoted(file.path) + ". " + error.Description() + ".";
      if (context_.is_reload) {
        errors_.log.LogProblem(line + " The list in force stays.");
        if (in_force != nullptr) {
          file.own_entries = in_force->own_entries;
          file.own_ipv6_ranges = in_force->own_ipv6_ranges;
        }
      } else {
        mCommon::ReportConfigError(errors_, section_name::kListFiles, entry.key, error.Number(), line,
                                   "Only the entries of the initialization file count.", entry.first_value);
        text = std::make_shared<std::string>();
      }
    }
    if (errors_.observer != nullptr) errors_.observer->ListFileRead(entry.first_value, text);
    configuration_.ListFiles.push_back(std::move(file));
    list_texts_.emplace(&setting, std::move(text));
  }

  // Reads a list by `read`, which takes where to put what it says of the list's file, or nullptr.
  template <class ReadIt>
  void ReadWithFile(const Setting& setting, ReadIt read) {
    const auto text = list_texts_.find(&setting);
    if (text == list_texts_.end()) return read(nullptr);
    if (text->second == nullptr) return;
    ListFile& file = *std::find_if(configuration_.ListFiles.begin(), configuration_.ListFiles.end(),
                                   [&](const ListFile& one) { return one.list == &setting; });
    mCommon::ListFileEntries entries{.path = file.path, .text = *text->second};
    read(&entries);
    file.own_entries = entries.own_entries;
    file.own_ipv6_ranges = entries.own_ipv6_ranges;
    // The list has its entries.
    if (errors_.observer == nullptr) list_texts_.erase(text);
  }

  void ReadList(const Setting& setting, const mCommon::ListForm& form) {
    ReadWithFile(setting, [&](mCommon::ListFileEntries* file) {
      Field<ExpressionList>(setting) =
          mCommon::GetList(errors_, setting.key, Section(setting), setting.default_text, form, file);
    });
  }

  template <class ReadThem>
  void ReadRanges(const Setting& setting, ReadThem read, std::string_view default_text) {
    ReadWithFile(setting, [&](mCommon::ListFileEntries* file) {
      Field<IPRangeList>(setting) = read(errors_, setting.key, Section(setting), default_text, file);
    });
  }

  const SectionStore& store_;
  const IniErrors& errors_;
  const SettingContext& context_;
  Configuration& configuration_;
  // Of the lists with a file, until they are read; nullptr: the list in force stays.
  std::map<const Setting*, std::shared_ptr<const std::string>> list_texts_;
};

// Takes what is wrong with the defaults: nothing.
class NoErrors final : public Log {
 public:
  void LogLine(std::string_view /*message*/) override { assert(false); }
};

}  // namespace

void ReadSettings(const SectionStore& store, const IniErrors& errors, const SettingContext& context,
                  Configuration& configuration) {
  SettingReader reader(store, errors, context, configuration);
  reader.ReadListFiles();
  for (const Setting& setting : AllSettings()) {
    if (!setting.is_early) reader.Read(setting);
  }
  reader.CheckTogether();
  configuration.ResponseChanges =
      mCommon::GetResponseChanges(errors, store.Section(section_name::kResponseChanges));
  const auto replacements = [&](std::string_view section) {
    return mCommon::GetReplacementTable(errors, store.Section(section));
  };
  configuration.SenderReplacementsLocal = replacements(section_name::kSenderReplacementsLocal);
  configuration.SenderReplacementsRemote = replacements(section_name::kSenderReplacementsRemote);
  configuration.RecipientReplacementsLocal = replacements(section_name::kRecipientReplacementsLocal);
  configuration.RecipientReplacementsRemote = replacements(section_name::kRecipientReplacementsRemote);
}

Configuration DefaultConfiguration() {
  const SectionStore empty;
  NoErrors log;
  const IniErrors errors{log, false};
  const SettingContext context;
  Configuration configuration{};
  SettingReader reader(empty, errors, context, configuration);
  for (const Setting& setting : AllSettings()) {
    switch (setting.kind) {
      case SettingKind::kHostName:
      case SettingKind::kDatabase:
      case SettingKind::kLogFolder:
        FieldOf<std::string>(configuration, setting) = setting.default_text;
        break;
      default:
        reader.Read(setting);
        break;
    }
  }
  return configuration;
}

}  // namespace trabex
