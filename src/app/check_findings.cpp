#include "app/check_findings.h"

#include <algorithm>
#include <tuple>

#include "app/near_name.h"
#include "base/text.h"
#include "config/list_files.h"
#include "config/section_store.h"
#include "config/settings_table.h"

namespace trabex {

namespace {

using Severity = Finding::Severity;

bool Contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

// For a key of section ListFiles that names no list.
std::string ListHint(std::string_view key) {
  if (FindList(key) != nullptr) return {};
  std::vector<std::string> names;
  for (const Setting& setting : AllSettings()) {
    if (MayHaveListFile(setting)) names.push_back(ListFileKey(setting));
  }
  return DidYouMean(key, names);
}

}  // namespace

void CheckFindings::Add(Severity severity, std::string_view section, std::string_view key,
                        std::string_view where, std::string text) {
  raw_.push_back({severity, std::string(section), std::string(key), std::move(text), where});
}

void CheckFindings::BadLine(std::string_view section, std::string_view key, std::string_view where,
                            const Error& error) {
  std::string text = error.Description();
  if (section.empty() && where.starts_with('[') && where.ends_with(']')) {
    const std::string_view name = where.substr(1, where.size() - 2);
    const std::vector<std::string> names(kSectionNames.begin(), kSectionNames.end());
    return Add(Severity::kError, name, {}, where, text + DidYouMean(name, names));
  }
  Add(Severity::kError, section, key, where, std::move(text));
}

void CheckFindings::BadValue(std::string_view section, std::string_view key, std::string_view where,
                             int /*number*/, std::string_view description) {
  std::string text(description);
  if (section == section_name::kListFiles) text += ListHint(key);
  // A message may show a part of it only.
  const bool shows_all = where.empty() || where == key || Contains(description, where);
  if (!shows_all) text += " (in " + Quoted(where) + ")";
  Add(Severity::kError, section, key, where, std::move(text));
  bad_keys_.emplace(ToLower(section), ToLower(key));
}

void CheckFindings::ListRead(std::string_view section, std::string_view key,
                             std::vector<std::string_view> places) {
  places_[{ToLower(section), ToLower(key)}] = std::move(places);
}

void CheckFindings::ListFileRead(std::string_view name, std::shared_ptr<const std::string> text) {
  if (text != nullptr) list_files_.push_back({std::string(name), std::move(text)});
}

void CheckFindings::AddListFiles(CheckPlaces& places) const {
  std::size_t number = 1;
  for (const ListFileText& file : list_files_) places.Add(number++, file.name, *file.text);
}

bool CheckFindings::HasBadValue(std::string_view section, std::string_view key) const {
  return bad_keys_.contains({ToLower(section), ToLower(key)});
}

std::string_view CheckFindings::EntryPlace(std::string_view section, std::string_view key,
                                           std::size_t index) const {
  const auto places = places_.find({ToLower(section), ToLower(key)});
  if (places == places_.end() || index >= places->second.size()) return {};
  return places->second[index];
}

void CheckFindings::NotePlaces(const CheckPlaces& places, SettingPlaces& noted) const {
  for (const auto& [name, pieces] : places_) noted.NoteEntries(name.first, name.second, pieces, places);
}

std::vector<Finding> CheckFindings::Take(const CheckPlaces& places) const {
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
    findings.push_back({places.FileName(one.place.file), one.place.line, one.raw->severity, one.raw->section,
                        one.raw->key, one.raw->text});
  }
  return findings;
}

}  // namespace trabex
