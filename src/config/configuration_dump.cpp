#include "config/configuration_dump.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "base/date_time.h"
#include "base/error.h"
#include "base/numbers.h"
#include "base/text.h"
#include "config/certificate_list.h"
#include "config/list_files.h"
#include "config/section_store.h"
#include "config/settings_table.h"

namespace trabex {

namespace {

// The early keys lose blanks around them, and one pair of quotes around those.
std::string AsProfileValue(const std::string& text) {
  if (text.empty()) return text;
  const bool is_quoted =
      text.size() >= 2 && (text.front() == '"' || text.front() == '\'') && text.front() == text.back();
  return is_quoted || text.front() == ' ' || text.back() == ' ' ? Quoted(text) : text;
}

// Bytes with the largest suffix that divides them.
std::string FormatSize(FixedPoint size) {
  struct Suffix {
    std::int64_t bytes;
    char letter;
  };
  constexpr std::array<Suffix, 3> kSuffixes = {{{1073741824, 'G'}, {1048576, 'M'}, {1024, 'K'}}};
  const std::int64_t bytes = size / kFixedPointOne;
  if (bytes > 0) {
    for (const Suffix& suffix : kSuffixes) {
      if (bytes % suffix.bytes == 0) return std::to_string(bytes / suffix.bytes) + suffix.letter;
    }
  }
  return FormatWhole(size);
}

// Writes lines; several for a list, each of them beginning with its key.
class Writer {
 public:
  explicit Writer(const std::function<void(std::string_view)>& write_line) : write_line_(write_line) {}

  void Line(std::string_view line) { write_line_(line); }
  void Separator(char c) { Line(";" + std::string(74, c)); }
  void Header(std::string_view section) { Line("[" + std::string(section) + "]"); }
  void Scalar(std::string_view key, std::string_view value) {
    Line(std::string(key).append(" = ").append(value));
  }

  void BeginList(std::string_view key) {
    key_ = key;
    line_.clear();
  }
  void Entry(std::string_view entry) {
    constexpr std::size_t kMaxLength = 100;
    constexpr std::string_view kComma = ", ";
    if (!line_.empty() && line_.size() + kComma.size() + entry.size() <= kMaxLength) {
      line_.append(kComma).append(entry);
      return;
    }
    if (!line_.empty()) Line(line_);
    line_.assign(key_).append(" = ").append(entry);
  }
  void EndList() {
    if (line_.empty()) line_.assign(key_).append(" =");
    Line(line_);
  }

 private:
  const std::function<void(std::string_view)>& write_line_;
  std::string_view key_;
  std::string line_;
};

// Writes the entries of one expression list, so that they read back as the same ones.
class ExpressionWriter {
 public:
  ExpressionWriter(Writer& writer, SettingKind kind, const ExpressionList& list)
      : writer_(writer),
        list_(list),
        knows_quotes_(kind != SettingKind::kPlainList),
        splits_on_blanks_(kind != SettingKind::kExtensionList) {}

  // The first `count` entries.
  void Write(std::size_t count) {
    if (splits_on_blanks_) TakeSingleKeys();
    for (std::size_t index = 0; index < count; ++index) {
      const ListEntry entry = list_.Entry(index);
      if (entry.is_group) {
        WriteGroup(entry);
      } else {
        writer_.Entry(AsNeeded(entry.patterns.front()));
      }
    }
  }

 private:
  // A group and a single entry with blanks, or two groups, may be written alike though they were not when
  // they were read. The second of them then takes all the quotes that it can have.
  void WriteGroup(const ListEntry& entry) {
    std::string text = Group(entry, false);
    if (!taken_keys_.insert(text).second) {
      text = Group(entry, true);
      // What is still alike is the same group once more.
      if (!taken_keys_.insert(text).second) return;
    }
    writer_.Entry(text);
  }

  void TakeSingleKeys() {
    for (std::size_t index = 0; index < list_.Count(); ++index) {
      const ListEntry entry = list_.Entry(index);
      if (entry.is_group) continue;
      const std::string& text = entry.patterns.front();
      if (text.find(' ') != std::string::npos) taken_keys_.insert(text);
    }
  }

  // Where a list knows no quotes, no entry needs them: it cannot hold what they would be for.
  std::string AsNeeded(const std::string& text) const {
    const bool needs_quotes = text.empty() || text.front() == ' ' || text.back() == ' ' ||
                              text.front() == '"' || text.find(',') != std::string::npos ||
                              (splits_on_blanks_ && text.find(' ') != std::string::npos);
    return knows_quotes_ && needs_quotes && !HoldsTogether(text) ? Quoted(text) : text;
  }

  // Whether quotes inside `text` keep its commas and blanks from dividing it. Quotes around it would turn
  // these inside out.
  bool HoldsTogether(std::string_view text) const {
    if (text.empty() || text.front() == '"' || text.front() == ' ' || text.back() == ' ') return false;
    bool holds = false;
    bool is_inside = false;
    for (const char c : text) {
      if (c == '"') {
        is_inside = !is_inside;  // a doubled one changes it twice
      } else if (c == ',' || (c == ' ' && splits_on_blanks_)) {
        if (!is_inside) return false;
        holds = true;
      }
    }
    return holds;
  }

  std::string Group(const ListEntry& entry, bool all_quoted) const {
    std::string text;
    for (const std::string& pattern : entry.patterns) {
      if (&pattern != &entry.patterns.front()) text += ' ';
      text += all_quoted && knows_quotes_ && !HoldsTogether(pattern) ? Quoted(pattern) : AsNeeded(pattern);
    }
    return text;
  }

  Writer& writer_;
  const ExpressionList& list_;
  bool knows_quotes_;
  bool splits_on_blanks_;
  // Under what entries with a blank will be stored when they are read.
  std::unordered_set<std::string, HashNoCase, SameNoCase> taken_keys_;
};

void WriteExpressions(Writer& writer, const Setting& setting, const ExpressionList& list,
                      const ListFile* file) {
  writer.BeginList(setting.key);
  ExpressionWriter(writer, setting.kind, list).Write(file == nullptr ? list.Count() : file->own_entries);
  writer.EndList();
}

void WriteCertificates(Writer& writer, const Setting& setting, const std::vector<CertificateFiles>& list) {
  writer.BeginList(setting.key);
  for (const CertificateFiles& files : list) writer.Entry(mCommon::FormatCertificateEntry(files));
  writer.EndList();
}

void WriteNames(Writer& writer, const Setting& setting, const std::vector<std::string>& names) {
  writer.BeginList(setting.key);
  for (const std::string& name : names) writer.Entry(name);
  writer.EndList();
}

// Without those of the list's own file.
std::vector<IPRange> OwnRanges(const IPRangeList& list, const ListFile* file) {
  std::vector<IPRange> ranges = list.Ranges();
  if (file == nullptr) return ranges;
  const auto ipv6 =
      std::find_if(ranges.begin(), ranges.end(), [](const IPRange& range) { return range.low.IsIPv6(); });
  const auto own_ipv6 = static_cast<std::ptrdiff_t>(file->own_ipv6_ranges);
  const auto own_ipv4 = static_cast<std::ptrdiff_t>(file->own_entries) - own_ipv6;
  ranges.erase(ipv6 + own_ipv6, ranges.end());
  ranges.erase(ranges.begin() + own_ipv4, ipv6);
  return ranges;
}

void WriteRanges(Writer& writer, const Setting& setting, const std::vector<IPRange>& ranges) {
  writer.BeginList(setting.key);
  std::unordered_set<std::string> written;
  written.reserve(ranges.size());
  for (const IPRange& range : ranges) {
    const auto [text, is_new] = written.insert(mCommon::FormatRange(range));
    if (is_new) writer.Entry(*text);
  }
  writer.EndList();
}

void WriteSetting(Writer& writer, const Setting& setting, const Configuration& configuration) {
  const auto scalar = [&](const std::string& value) {
    if (setting.shown_at_default || value != setting.default_text) writer.Scalar(setting.key, value);
  };
  switch (setting.kind) {
    case SettingKind::kText:
    case SettingKind::kIPAddresses:
    case SettingKind::kChoice:
    case SettingKind::kCiphers:
    case SettingKind::kFile:
    case SettingKind::kOutput:
    case SettingKind::kEndpoint:
    case SettingKind::kHostName:
    case SettingKind::kDatabase:
      scalar(FieldOf<std::string>(configuration, setting));
      break;
    case SettingKind::kLogFolder:
      scalar(AsProfileValue(FieldOf<std::string>(configuration, setting)));
      break;
    case SettingKind::kInteger:
    case SettingKind::kTLSPort:
      scalar(std::to_string(FieldOf<std::int32_t>(configuration, setting)));
      break;
    case SettingKind::kBoolean:
      scalar(FieldOf<bool>(configuration, setting) ? "1" : "0");
      break;
    case SettingKind::kMinutes:
    case SettingKind::kLifetime:
      scalar(std::to_string(std::llround(FieldOf<double>(configuration, setting) * kMinutesPerDay)));
      break;
    case SettingKind::kSize:
      scalar(FormatSize(FieldOf<FixedPoint>(configuration, setting)));
      break;
    case SettingKind::kAddressList:
    case SettingKind::kPlainList:
    case SettingKind::kExtensionList:
      WriteExpressions(writer, setting, FieldOf<ExpressionList>(configuration, setting),
                       FindListFile(configuration.ListFiles, setting));
      break;
    case SettingKind::kRangeList:
    case SettingKind::kPartialRangeList: {
      const std::vector<IPRange> ranges = OwnRanges(FieldOf<IPRangeList>(configuration, setting),
                                                    FindListFile(configuration.ListFiles, setting));
      if (setting.shown_at_default || !ranges.empty()) WriteRanges(writer, setting, ranges);
      break;
    }
    case SettingKind::kCertificateList: {
      const auto& list = FieldOf<std::vector<CertificateFiles>>(configuration, setting);
      if (setting.shown_at_default || !list.empty()) WriteCertificates(writer, setting, list);
      // Without them the configuration that reads back would do without TLS.
      for (const auto& line : configuration.TLS.misspelled_certificates) writer.Scalar(setting.key, line);
      break;
    }
    case SettingKind::kNameList: {
      const auto& list = FieldOf<std::vector<std::string>>(configuration, setting);
      if (setting.shown_at_default || !list.empty()) WriteNames(writer, setting, list);
      break;
    }
  }
}

// A section that came later: it is there when it has a line.
void WriteLaterSection(Writer& writer, std::string_view section, const Configuration& configuration) {
  bool is_begun = false;
  const std::function<void(std::string_view)> write_line = [&](std::string_view line) {
    if (!std::exchange(is_begun, true)) {
      writer.Separator('-');
      writer.Header(section);
    }
    writer.Line(line);
  };
  Writer lines(write_line);
  for (const Setting* const setting : SettingsInDumpOrder(section)) {
    WriteSetting(lines, *setting, configuration);
  }
}

void WriteSection(Writer& writer, std::string_view section, const Configuration& configuration) {
  writer.Header(section);
  for (const Setting* const setting : SettingsInDumpOrder(section)) {
    WriteSetting(writer, *setting, configuration);
  }
}

// The rule with blanks between its parts, which mean nothing.
std::string Spaced(const cReplace& rule, std::size_t blanks) {
  const bool is_exact = rule.CaseSensitive() && !rule.Search().empty();
  return "<" + rule.Search() + ">" + std::string(blanks, ' ') + (is_exact ? "==<" : "=<") +
         rule.Replacement() + ">";
}

void WriteResponseChanges(Writer& writer, const ResponseChangeTable& table) {
  writer.Header(section_name::kResponseChanges);
  for (const cReplaces& replaces : table.Lists()) {
    writer.BeginList(replaces.Name());
    // A rule that occurs twice, with different blanks, has to keep both places: the order counts.
    std::unordered_set<std::string, HashNoCase, SameNoCase> taken_keys;
    for (const cReplace& rule : replaces.Rules()) {
      std::string text = rule.Format();
      for (std::size_t blanks = 0; !taken_keys.insert(text).second; ++blanks) text = Spaced(rule, blanks);
      writer.Entry(text);
    }
    writer.EndList();
  }
}

void WriteReplacements(Writer& writer, std::string_view section, const ReplacementTable& table) {
  writer.Separator('-');
  writer.Header(section);
  for (const ReplacementTable::Rule& rule : table.Rules()) writer.Scalar(rule.key, rule.value);
}

void WriteConfiguration(Writer& writer, std::string_view ini_path, const Configuration& configuration) {
  writer.Separator('=');
  writer.Line("; Initialization file: " + std::string(ini_path));
  writer.Line("; Current configuration:");
  writer.Separator('=');
  WriteSection(writer, section_name::kCommon, configuration);
  writer.Separator('-');
  WriteSection(writer, section_name::kGreyListing, configuration);
  WriteLaterSection(writer, section_name::kTLS, configuration);
  writer.Separator('-');
  WriteResponseChanges(writer, configuration.ResponseChanges);
  WriteReplacements(writer, section_name::kSenderReplacementsLocal, configuration.SenderReplacementsLocal);
  WriteReplacements(writer, section_name::kSenderReplacementsRemote, configuration.SenderReplacementsRemote);
  WriteReplacements(writer, section_name::kRecipientReplacementsLocal,
                    configuration.RecipientReplacementsLocal);
  WriteReplacements(writer, section_name::kRecipientReplacementsRemote,
                    configuration.RecipientReplacementsRemote);
  WriteLaterSection(writer, section_name::kService, configuration);
  if (!configuration.ListFiles.empty()) {
    writer.Separator('-');
    writer.Header(section_name::kListFiles);
    for (const ListFile& file : configuration.ListFiles) writer.Scalar(ListFileKey(*file.list), file.path);
  }
  writer.Separator('=');
}

}  // namespace

void DumpConfiguration(const Configuration& configuration, std::string_view ini_path,
                       const std::function<void(std::string_view line)>& write_line) {
  Writer writer(write_line);
  WriteConfiguration(writer, ini_path, configuration);
}

namespace mCommon {

void LogConfiguration(const Configuration& configuration, std::string_view ini_path, Log& log,
                      const std::function<void(std::string_view line)>& write_line) {
  if (configuration.Log == log_mode::kOff) return;
  try {
    DumpConfiguration(configuration, ini_path, write_line);
  } catch (const Error& error) {
    log.LogError(error.Number(), error.Description(), "mCommon.LogConfiguration");
  }
}

}  // namespace mCommon
}  // namespace trabex
