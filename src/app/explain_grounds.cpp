#include "app/explain_grounds.h"

#include <algorithm>
#include <cmath>
#include <utility>
#include <variant>

#include "base/date_time.h"
#include "base/numbers.h"
#include "base/text.h"
#include "config/section_store.h"
#include "match/ip_range.h"

namespace trabex {

namespace {

template <class List>
const Setting* SettingOf(const Configuration& configuration, const List& list) {
  for (const Setting& setting : AllSettings()) {
    const bool has_list = std::holds_alternative<List Configuration::*>(setting.field) ||
                          std::holds_alternative<List GreyListingSettings::*>(setting.field);
    if (has_list && &FieldOf<List>(configuration, setting) == &list) return &setting;
  }
  return nullptr;
}

std::string_view SectionOf(const Configuration& c, const ReplacementTable& table) {
  const std::pair<const ReplacementTable*, std::string_view> tables[] = {
      {&c.SenderReplacementsLocal, section_name::kSenderReplacementsLocal},
      {&c.SenderReplacementsRemote, section_name::kSenderReplacementsRemote},
      {&c.RecipientReplacementsLocal, section_name::kRecipientReplacementsLocal},
      {&c.RecipientReplacementsRemote, section_name::kRecipientReplacementsRemote},
  };
  for (const auto& [one, section] : tables) {
    if (one == &table) return section;
  }
  return {};
}

std::string ValueText(const Configuration& configuration, const Setting& setting) {
  switch (setting.kind) {
    case SettingKind::kMinutes:
    case SettingKind::kLifetime:
      return std::to_string(std::llround(FieldOf<double>(configuration, setting) * kMinutesPerDay));
    case SettingKind::kSize:
      return FormatWhole(FieldOf<FixedPoint>(configuration, setting));
    case SettingKind::kBoolean:
      return FieldOf<bool>(configuration, setting) ? "1" : "0";
    default:
      return std::to_string(FieldOf<std::int32_t>(configuration, setting));
  }
}

}  // namespace

void GroundNotes::Asked(const ExpressionList& list, std::string_view value, bool matches) {
  const Setting* const setting = SettingOf(configuration_, list);
  if (setting == nullptr) return;
  const auto index = matches ? list.Find(value) : std::nullopt;
  if (!index) return notes_.asked.push_back(NoEntry(setting->section, setting->key));
  notes_.asked.push_back({std::string(setting->section), std::string(setting->key), EntryText(list, *index),
                          places_.OfEntry(setting->section, setting->key, *index), true});
}

void GroundNotes::Asked(const IPRangeList& list, const IPAddress& address, bool matches) {
  const Setting* const setting = SettingOf(configuration_, list);
  if (setting == nullptr) return;
  const auto index = matches ? FindRange(list, address) : std::nullopt;
  if (!index) return notes_.asked.push_back(NoEntry(setting->section, setting->key));
  notes_.asked.push_back({std::string(setting->section), std::string(setting->key),
                          mCommon::FormatRange(list.Ranges()[*index]),
                          places_.OfEntry(setting->section, setting->key, *index), true});
}

void GroundNotes::Replaced(const ReplacementTable& table, const ReplacementTable::Rule& rule) {
  const std::string section(SectionOf(configuration_, table));
  notes_.replaced = Ground{section, rule.key, rule.value, places_.OfKey(section, rule.key), true};
}

void GroundNotes::Changed(const cReplaces& rules, std::size_t rule) {
  const std::string section(section_name::kResponseChanges);
  notes_.changed.push_back(
      {section, rules.Name(), rules.Item(rule), places_.OfEntry(section, rules.Name(), rule), true});
}

GroundNotes::Notes GroundNotes::Take() {
  return std::exchange(notes_, {});
}

const Ground* GroundNotes::Notes::LastMatch(std::string_view section) const {
  const auto found = std::find_if(asked.rbegin(), asked.rend(), [&](const Ground& ground) {
    return ground.matches && ground.section == section;
  });
  return found == asked.rend() ? nullptr : &*found;
}

const Ground* GroundNotes::Notes::Find(std::string_view section, std::string_view key) const {
  const auto found = std::find_if(asked.begin(), asked.end(), [&](const Ground& ground) {
    return ground.section == section && ground.key == key;
  });
  return found == asked.end() ? nullptr : &*found;
}

Ground GroundNotes::Value(std::string_view section, std::string_view key) const {
  const Setting* const setting = FindSetting(section, key);
  return {std::string(section), std::string(key),
          setting == nullptr ? std::string() : ValueText(configuration_, *setting),
          places_.OfKey(section, key), true};
}

Ground GroundNotes::NoEntry(std::string_view section, std::string_view key) const {
  return {std::string(section), std::string(key), {}, places_.OfKey(section, key), false};
}

std::string EntryText(const ExpressionList& list, std::size_t index) {
  std::string text;
  list.AppendEntryText(index, text);
  return text;
}

std::optional<std::size_t> FindRange(const IPRangeList& list, const IPAddress& address) {
  const std::vector<IPRange> ranges = list.Ranges();
  const auto found = std::find_if(ranges.begin(), ranges.end(),
                                  [&](const IPRange& range) { return mCommon::IPInRange(address, range); });
  if (found == ranges.end()) return std::nullopt;
  return static_cast<std::size_t>(found - ranges.begin());
}

std::string FormatGround(const Ground& ground) {
  return "[" + ground.section + "] " + ground.key + ", " +
         (ground.matches ? Quoted(ground.entry) : std::string("no entry")) + ", " + FormatPlace(ground.place);
}

}  // namespace trabex
