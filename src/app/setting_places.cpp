#include "app/setting_places.h"

#include "base/text.h"

namespace trabex {

SettingPlaces::Name SettingPlaces::NameOf(std::string_view section, std::string_view key) {
  return {ToLower(section), ToLower(key)};
}

SettingPlaces::Place SettingPlaces::PlaceOf(const CheckPlaces::Place& place) const {
  const auto file = files_.find(place.file);
  if (place.line == 0 || file == files_.end()) return {};
  return {file->second, place.line};
}

SettingPlaces::Place SettingPlaces::OfKey(std::string_view section, std::string_view key) const {
  const auto found = keys_.find(NameOf(section, key));
  return found == keys_.end() ? Place{} : PlaceOf(found->second);
}

SettingPlaces::Place SettingPlaces::OfEntry(std::string_view section, std::string_view key,
                                            std::size_t index) const {
  const auto found = entries_.find(NameOf(section, key));
  if (found == entries_.end() || index >= found->second.size()) return {};
  return PlaceOf(found->second[index]);
}

void SettingPlaces::NoteKeys(const SectionStore& store, const CheckPlaces& places) {
  for (const std::string_view section : kSectionNames) {
    for (const SectionTable::Entry& entry : store.Section(section).Entries()) {
      const CheckPlaces::Place place = places.PlaceOf(entry.key);
      NoteFile(place, places);
      keys_[NameOf(section, entry.key)] = place;
    }
  }
}

void SettingPlaces::NoteEntries(std::string_view section, std::string_view key,
                                const std::vector<std::string_view>& pieces, const CheckPlaces& places) {
  std::vector<CheckPlaces::Place>& noted = entries_[NameOf(section, key)];
  noted.clear();
  noted.reserve(pieces.size());
  for (const std::string_view piece : pieces) {
    noted.push_back(places.PlaceOf(piece));
    NoteFile(noted.back(), places);
  }
}

void SettingPlaces::NoteFile(const CheckPlaces::Place& place, const CheckPlaces& places) {
  if (place.line != 0 && !files_.contains(place.file)) files_[place.file] = places.FileName(place.file);
}

std::string FormatPlace(const SettingPlaces::Place& place) {
  return place.line == 0 ? "default" : place.file + ":" + std::to_string(place.line);
}

}  // namespace trabex
