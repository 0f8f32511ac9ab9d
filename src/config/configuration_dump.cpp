#include "config/configuration_dump.h"

#include <array>
#include <cassert>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/date_time.h"
#include "base/error.h"
#include "base/numbers.h"
#include "base/text.h"
#include "config/certificate_list.h"
#include "config/dump_writer.h"
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

// A part of the dump. Called until it says that it is complete.
using Part = std::function<bool(DumpWriter& writer, DumpBudget& budget)>;

// Writes the entries of one expression list, so that they read back as the same ones.
class ExpressionWriter {
 public:
  // The first `count` entries.
  ExpressionWriter(const Setting& setting, const ExpressionList& list, std::size_t count)
      : key_(setting.key),
        list_(list),
        count_(count),
        knows_quotes_(setting.kind != SettingKind::kPlainList),
        splits_on_blanks_(setting.kind != SettingKind::kExtensionList) {}

  bool Write(DumpWriter& writer, DumpBudget& budget) {
    for (; splits_on_blanks_ && keys_taken_ < list_.Count(); ++keys_taken_) {
      if (!budget.Take()) return false;
      TakeSingleKey(list_.Entry(keys_taken_));
    }
    if (written_ == 0) writer.BeginList(key_);
    for (; written_ < count_; ++written_) {
      if (!budget.Take()) return false;
      const ListEntry entry = list_.Entry(written_);
      if (entry.is_group) {
        WriteGroup(writer, entry);
      } else {
        writer.Entry(AsNeeded(entry.patterns.front()));
      }
    }
    writer.EndList();
    return true;
  }

 private:
  // A group and a single entry with blanks, or two groups, may be written alike though they were not when
  // they were read. The second of them then takes all the quotes that it can have.
  void WriteGroup(DumpWriter& writer, const ListEntry& entry) {
    std::string text = Group(entry, false);
    if (!taken_keys_.Add(text)) {
      text = Group(entry, true);
      // What is still alike is the same group once more.
      if (!taken_keys_.Add(text)) return;
    }
    writer.Entry(text);
  }

  void TakeSingleKey(const ListEntry& entry) {
    if (entry.is_group) return;
    const std::string& text = entry.patterns.front();
    if (text.find(' ') != std::string::npos) taken_keys_.Add(text);
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

  std::string_view key_;
  const ExpressionList& list_;
  std::size_t count_;
  bool knows_quotes_;
  bool splits_on_blanks_;
  std::size_t keys_taken_ = 0;
  std::size_t written_ = 0;
  // Under what entries with a blank will be stored when they are read.
  SeenTexts taken_keys_;
};

// Writes the ranges of a list that are not those of its own file, each once.
class RangeWriter {
 public:
  RangeWriter(const Setting& setting, const IPRangeList& list, const ListFile* file)
      : setting_(setting), list_(list) {
    const std::size_t own_ipv6 = file == nullptr ? list.Count() - list.IPv4Count() : file->own_ipv6_ranges;
    own_ipv4_ = file == nullptr ? list.IPv4Count() : file->own_entries - own_ipv6;
    count_ = own_ipv4_ + own_ipv6;
  }

  bool Write(DumpWriter& writer, DumpBudget& budget) {
    if (!setting_.shown_at_default && count_ == 0) return true;
    if (written_ == 0) writer.BeginList(setting_.key);
    for (; written_ < count_; ++written_) {
      if (!budget.Take()) return false;
      const std::size_t index = written_ < own_ipv4_ ? written_ : list_.IPv4Count() + (written_ - own_ipv4_);
      const std::string text = mCommon::FormatRange(list_.Range(index));
      if (texts_.Add(text)) writer.Entry(text);
    }
    writer.EndList();
    return true;
  }

 private:
  const Setting& setting_;
  const IPRangeList& list_;
  std::size_t own_ipv4_;
  std::size_t count_;
  std::size_t written_ = 0;
  SeenTexts texts_;
};

void WriteCertificates(DumpWriter& writer, const Setting& setting,
                       const std::vector<CertificateFiles>& list) {
  writer.BeginList(setting.key);
  for (const CertificateFiles& files : list) writer.Entry(mCommon::FormatCertificateEntry(files));
  writer.EndList();
}

void WriteNames(DumpWriter& writer, const Setting& setting, const std::vector<std::string>& names) {
  writer.BeginList(setting.key);
  for (const std::string& name : names) writer.Entry(name);
  writer.EndList();
}

void WriteScalar(DumpWriter& writer, const Setting& setting, const std::string& value) {
  if (setting.shown_at_default || value != setting.default_text) writer.Scalar(setting.key, value);
}

// All but the long lists.
void WriteSetting(DumpWriter& writer, const Setting& setting, const Configuration& configuration) {
  const auto scalar = [&](const std::string& value) { WriteScalar(writer, setting, value); };
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
    case SettingKind::kRangeList:
    case SettingKind::kPartialRangeList:
      assert(false);
      break;
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

// Of a writer that is a part by itself.
template <class PartWriter>
Part PartOf(std::shared_ptr<PartWriter> part) {
  return [part](DumpWriter& writer, DumpBudget& budget) { return part->Write(writer, budget); };
}

Part SettingPart(const Setting& setting, const Configuration& configuration) {
  const ListFile* const file = FindListFile(configuration.ListFiles, setting);
  switch (setting.kind) {
    case SettingKind::kAddressList:
    case SettingKind::kPlainList:
    case SettingKind::kExtensionList: {
      const auto& list = FieldOf<ExpressionList>(configuration, setting);
      return PartOf(std::make_shared<ExpressionWriter>(setting, list,
                                                       file == nullptr ? list.Count() : file->own_entries));
    }
    case SettingKind::kRangeList:
    case SettingKind::kPartialRangeList:
      return PartOf(
          std::make_shared<RangeWriter>(setting, FieldOf<IPRangeList>(configuration, setting), file));
    default:
      return [&setting, &configuration](DumpWriter& writer, DumpBudget&) {
        WriteSetting(writer, setting, configuration);
        return true;
      };
  }
}

// The rule with blanks between its parts, which mean nothing.
std::string Spaced(const cReplace& rule, std::size_t blanks) {
  const bool is_exact = rule.CaseSensitive() && !rule.Search().empty();
  return "<" + rule.Search() + ">" + std::string(blanks, ' ') + (is_exact ? "==<" : "=<") +
         rule.Replacement() + ">";
}

class ResponseChangeWriter {
 public:
  explicit ResponseChangeWriter(const ResponseChangeTable& table) : table_(table) {}

  bool Write(DumpWriter& writer, DumpBudget& budget) {
    for (; list_ < table_.Lists().size(); ++list_, rule_ = 0) {
      const cReplaces& replaces = table_.Lists()[list_];
      if (rule_ == 0) writer.BeginList(replaces.Name());
      for (; rule_ < replaces.Rules().size(); ++rule_) {
        if (!budget.Take()) return false;
        writer.Entry(TextOf(replaces, replaces.Rules()[rule_]));
      }
      writer.EndList();
      if (rule_ > 1) taken_keys_ = {};
    }
    return true;
  }

 private:
  // A rule that occurs twice, with different blanks, has to keep both places: the order counts.
  std::string TextOf(const cReplaces& replaces, const cReplace& rule) {
    std::string text = rule.Format();
    if (replaces.Rules().size() == 1) return text;
    for (std::size_t blanks = 0; !taken_keys_.Add(text); ++blanks) text = Spaced(rule, blanks);
    return text;
  }

  const ResponseChangeTable& table_;
  std::size_t list_ = 0;
  std::size_t rule_ = 0;  // of it
  SeenTexts taken_keys_;
};

class ReplacementWriter {
 public:
  explicit ReplacementWriter(const ReplacementTable& table) : table_(table) {}

  bool Write(DumpWriter& writer, DumpBudget& budget) {
    for (; rule_ < table_.Rules().size(); ++rule_) {
      if (!budget.Take()) return false;
      const ReplacementTable::Rule& rule = table_.Rules()[rule_];
      writer.Scalar(rule.key, rule.value);
    }
    return true;
  }

 private:
  const ReplacementTable& table_;
  std::size_t rule_ = 0;
};

}  // namespace

// All parts of the dump, in order.
class ConfigurationDump::Parts {
 public:
  Parts(const Configuration& configuration, std::string_view ini_path) : configuration_(configuration) {
    Add([path = std::string(ini_path)](DumpWriter& writer) {
      writer.Separator('=');
      writer.Line("; Initialization file: " + path);
      writer.Line("; Current configuration:");
      writer.Separator('=');
    });
    AddSection(section_name::kCommon);
    AddSeparator('-');
    AddSection(section_name::kGreyListing);
    AddLaterSection(section_name::kTLS);
    AddSeparator('-');
    Add([](DumpWriter& writer) { writer.Header(section_name::kResponseChanges); });
    parts_.push_back(PartOf(std::make_shared<ResponseChangeWriter>(configuration.ResponseChanges)));
    AddReplacements(section_name::kSenderReplacementsLocal, configuration.SenderReplacementsLocal);
    AddReplacements(section_name::kSenderReplacementsRemote, configuration.SenderReplacementsRemote);
    AddReplacements(section_name::kRecipientReplacementsLocal, configuration.RecipientReplacementsLocal);
    AddReplacements(section_name::kRecipientReplacementsRemote, configuration.RecipientReplacementsRemote);
    AddLaterSection(section_name::kService);
    AddListFiles();
    AddSeparator('=');
  }

  bool WriteSome(DumpBudget budget, const DumpWriter::WriteLine& write_line) {
    writer_.SetTarget(write_line);
    for (; next_ < parts_.size(); ++next_) {
      if (!parts_[next_](writer_, budget)) return true;
      parts_[next_] = nullptr;  // a long list has needed memory
    }
    return false;
  }

 private:
  // One that is short.
  void Add(std::function<void(DumpWriter& writer)> write) {
    parts_.push_back([write = std::move(write)](DumpWriter& writer, DumpBudget&) {
      write(writer);
      return true;
    });
  }
  void AddSeparator(char c) {
    Add([c](DumpWriter& writer) { writer.Separator(c); });
  }
  void AddSettings(std::string_view section) {
    for (const Setting* const setting : SettingsInDumpOrder(section)) {
      parts_.push_back(SettingPart(*setting, configuration_));
    }
  }
  void AddSection(std::string_view section) {
    Add([section](DumpWriter& writer) { writer.Header(section); });
    AddSettings(section);
  }
  // A section that came later: it is there when it has a line.
  void AddLaterSection(std::string_view section) {
    Add([section](DumpWriter& writer) { writer.AwaitSection(section); });
    AddSettings(section);
    Add([](DumpWriter& writer) { writer.AwaitSection({}); });
  }
  void AddReplacements(std::string_view section, const ReplacementTable& table) {
    AddSeparator('-');
    Add([section](DumpWriter& writer) { writer.Header(section); });
    parts_.push_back(PartOf(std::make_shared<ReplacementWriter>(table)));
  }
  void AddListFiles() {
    Add([this](DumpWriter& writer) {
      writer.AwaitSection(section_name::kListFiles);
      for (const ListFile& file : configuration_.ListFiles) writer.Scalar(ListFileKey(*file.list), file.path);
      writer.AwaitSection({});
    });
  }

  const Configuration& configuration_;
  DumpWriter writer_;
  std::vector<Part> parts_;
  std::size_t next_ = 0;
};

ConfigurationDump::ConfigurationDump(const Configuration& configuration, std::string_view ini_path)
    : parts_(std::make_unique<Parts>(configuration, ini_path)) {}

ConfigurationDump::~ConfigurationDump() = default;

bool ConfigurationDump::WriteSome(std::size_t entries,
                                  const std::function<void(std::string_view line)>& write_line) {
  return parts_->WriteSome(DumpBudget(entries), write_line);
}

void DumpConfiguration(const Configuration& configuration, std::string_view ini_path,
                       const std::function<void(std::string_view line)>& write_line) {
  constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();
  ConfigurationDump(configuration, ini_path).WriteSome(kAll, write_line);
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
