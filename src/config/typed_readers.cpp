#include "config/typed_readers.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "base/delimited_text.h"
#include "base/error.h"
#include "base/text.h"
#include "match/mText.h"

namespace trabex::mCommon {

namespace {

std::string RangeText(std::string_view value, const std::string& min, const std::string& max) {
  return "Value " + std::string(value) + " lies out of allowed range: from " + min + " to " + max + ".";
}

std::string NoNumberText(std::string_view value) {
  return "Value is not a number: \"" + std::string(value) + "\".";
}

std::string InadmissibleText(std::string_view value) {
  return "Inadmissible string: \"" + std::string(value) + "\".";
}

// Adds what `entry` is; false when it is inadmissible.
bool AddAddress(std::string_view entry, IPAddresses& list) {
  std::optional<IPAddress> address;
  if (entry.find(':') != std::string_view::npos) {
    address = ParseIPAddress(entry);
    if (!address) return false;
  } else {
    if (!mText::PlainLike(entry, "*#.*#.*#.*#")) return false;
    address = ParseIPv4Address(entry).value_or(IPAddress());
  }
  const bool is_new = address->IsNone() || std::find(list.addresses.begin(), list.addresses.end(),
                                                     *address) == list.addresses.end();
  if (!is_new) return true;
  if (!list.text.empty()) list.text += ", ";
  list.text += entry;
  list.addresses.push_back(*address);
  return true;
}

// Nothing when `value` is inadmissible.
std::optional<IPAddresses> ReadAddresses(std::string_view value) {
  IPAddresses list;
  for (std::string_view entry : Split(value, ',')) {
    entry = Trim(entry);
    if (!entry.empty() && !AddAddress(entry, list)) return std::nullopt;
  }
  return list;
}

constexpr std::string_view kEmptyNumberText = "Integer value expected.";

// 0 when `suffix` is none.
std::int64_t Multiplier(char suffix) {
  constexpr std::int64_t kKilo = 1024;
  switch (ToUpper(suffix)) {
    case 'K':
      return kKilo;
    case 'M':
      return kKilo * kKilo;
    case 'G':
      return kKilo * kKilo * kKilo;
    default:
      return 0;
  }
}

// Whether `key` as a whole and each pattern in it is well-formed, so that no look-up in the table can fail.
bool IsPatternList(std::string_view key) {
  if (mText::IsInvalidPattern(key)) return false;
  try {
    for (std::string_view alternative : SplitOutside(key, ",", "\"", "\"")) {
      for (std::string_view part : SplitOutside(Trim(alternative), " ", "\"", "\"", {.skipEmpty = true})) {
        if (part.front() == '"') part = Undelimit(part, "\"", "\"");
        if (mText::IsInvalidPattern(part)) return false;
      }
    }
  } catch (const Error&) {
    return false;
  }
  return true;
}

}  // namespace

std::string GetString(const IniErrors& errors, const SectionTable& section, std::string_view key,
                      std::string_view default_value, std::string_view pattern, PatternKind pattern_kind) {
  const SectionTable::Entry* const entry = section.Find(key);
  if (entry == nullptr) return std::string(default_value);
  const std::string_view value = entry->first_value;
  if (!value.empty() && !pattern.empty()) {
    const bool matches = pattern_kind == PatternKind::kPlainLike ? mText::PlainLike(value, pattern)
                                                                 : mText::LikeText(value, pattern);
    if (!matches) {
      ReportConfigError(errors, section.Name(), key, error_number::kBadValue, InadmissibleText(value),
                        DefaultTaken(default_value), value);
      return std::string(default_value);
    }
  }
  return std::string(value);
}

std::int32_t ConvertInteger(const IniErrors& errors, std::string_view section, std::string_view key,
                            std::string_view value, std::int32_t default_value, std::int64_t min,
                            std::int64_t max) {
  const auto bad = [&](std::string_view description) {
    ReportConfigError(errors, section, key, error_number::kBadValue, description,
                      DefaultTaken(std::to_string(default_value)), value);
    return default_value;
  };
  if (value.empty()) return bad(kEmptyNumberText);
  const std::optional<std::int32_t> number = ParseInteger(value);
  if (!number) return bad(NoNumberText(value));
  if (*number < min || *number > max) return bad(RangeText(value, std::to_string(min), std::to_string(max)));
  return *number;
}

std::int32_t GetInteger(const IniErrors& errors, const SectionTable& section, std::string_view key,
                        std::int32_t default_value, std::int64_t min, std::int64_t max) {
  const SectionTable::Entry* const entry = section.Find(key);
  if (entry == nullptr) return default_value;
  return ConvertInteger(errors, section.Name(), key, entry->first_value, default_value, min, max);
}

FixedPoint GetSize(const IniErrors& errors, const SectionTable& section, std::string_view key,
                   FixedPoint default_value, FixedPoint min, FixedPoint max) {
  const SectionTable::Entry* const entry = section.Find(key);
  if (entry == nullptr) return default_value;
  const auto bad = [&](std::string_view description) {
    ReportConfigError(errors, section.Name(), key, error_number::kBadValue, description,
                      DefaultTaken(FormatWhole(default_value)), entry->first_value);
    return default_value;
  };
  std::string_view value = entry->first_value;
  if (value.empty()) return bad(kEmptyNumberText);
  std::int64_t multiplier = Multiplier(value.back());
  if (multiplier == 0) {
    multiplier = 1;
  } else {
    value.remove_suffix(1);
  }
  const std::optional<FixedPoint> size = ParseFixedPoint(value, multiplier);
  if (!size) return bad(NoNumberText(value));
  if (*size < min || *size > max) return bad(RangeText(value, FormatWhole(min), FormatWhole(max)));
  return *size;
}

std::string GetChoice(const IniErrors& errors, const SectionTable& section, std::string_view key,
                      std::string_view default_value, std::span<const std::string_view> choices) {
  const SectionTable::Entry* const entry = section.Find(key);
  if (entry == nullptr) return std::string(default_value);
  const std::string_view value = entry->first_value;
  if (std::find(choices.begin(), choices.end(), value) != choices.end()) return std::string(value);
  ReportConfigError(errors, section.Name(), key, error_number::kBadValue, InadmissibleText(value),
                    DefaultTaken(default_value), value);
  return std::string(default_value);
}

std::vector<std::string> GetChoices(const IniErrors& errors, const SectionTable& section,
                                    std::string_view key, std::span<const std::string_view> choices) {
  std::vector<std::string> list;
  const auto take = [&](std::string_view name) {
    const auto choice = std::find_if(choices.begin(), choices.end(),
                                     [&](std::string_view known) { return EqualNoCase(known, name); });
    if (choice == choices.end()) {
      ReportConfigError(errors, section.Name(), key, error_number::kBadValue, InadmissibleText(name),
                        kEntryLeftOut, name);
    } else if (std::find(list.begin(), list.end(), *choice) != list.end()) {
      ReportConfigError(errors, section.Name(), key, error_number::kDuplicateKey,
                        "Expression " + Quoted(name) + " specified more than once.", kEntryLeftOut, name);
    } else {
      list.emplace_back(*choice);
    }
  };
  const auto take_line = [&](std::string_view value) {
    for (std::string_view name : Split(value, ',')) {
      name = Trim(name);
      if (!name.empty()) take(name);
    }
  };
  if (const SectionTable::Entry* const entry = section.Find(key)) {
    take_line(entry->first_value);
    for (std::string_view value : entry->further_values) take_line(value);
  }
  return list;
}

Endpoint GetEndpoint(const IniErrors& errors, const SectionTable& section, std::string_view key,
                     std::string& text) {
  text.clear();
  const SectionTable::Entry* const entry = section.Find(key);
  if (entry == nullptr || entry->first_value.empty()) return {};
  const std::optional<Endpoint> endpoint = ParseEndpoint(entry->first_value);
  if (!endpoint) {
    ReportConfigError(errors, section.Name(), key, error_number::kBadValue,
                      InadmissibleText(entry->first_value), DefaultTaken({}), entry->first_value);
    return {};
  }
  text = entry->first_value;
  return *endpoint;
}

IPAddresses GetIPAddresses(const IniErrors& errors, const SectionTable& section, std::string_view key,
                           std::string_view default_value) {
  if (const SectionTable::Entry* const entry = section.Find(key)) {
    const std::optional<IPAddresses> list = ReadAddresses(entry->first_value);
    if (list && !list->addresses.empty()) return *list;
    if (!list) {
      ReportConfigError(errors, section.Name(), key, error_number::kBadValue,
                        InadmissibleText(entry->first_value), DefaultTaken(default_value),
                        entry->first_value);
    }
  }
  return ReadAddresses(default_value).value_or(IPAddresses());
}

ReplacementTable GetReplacementTable(const IniErrors& errors, const SectionTable& section) {
  ReplacementTable table;
  for (const SectionTable::Entry& entry : section.Entries()) {
    if (!IsPatternList(entry.key)) {
      ReportConfigError(errors, section.Name(), entry.key, error_number::kBadPattern,
                        "Invalid Regular Expression in key name.", kEntryLeftOut, entry.key);
      continue;
    }
    table.Add(std::string(entry.key), std::string(entry.first_value));
  }
  return table;
}

}  // namespace trabex::mCommon
