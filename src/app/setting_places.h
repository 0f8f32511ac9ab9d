// Where in the files keys and the entries of lists stand.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "app/check_places.h"
#include "config/section_store.h"

namespace trabex {

// Kept only by who explains what the settings do. Names of sections and keys are taken without regard to case.
class SettingPlaces {
 public:
  struct Place {
    std::string file;      // as people wrote it; "": it stands nowhere, and comes from a default
    std::size_t line = 0;  // 0: none
  };

  // Of a key where it comes first.
  Place OfKey(std::string_view section, std::string_view key) const;
  // Of an entry of a list, by its index as LoadObserver::ListRead counts.
  Place OfEntry(std::string_view section, std::string_view key, std::size_t index) const;

  // For who reads the files; `places` and the pieces are needed during the calls only.
  void NoteKeys(const SectionStore& store, const CheckPlaces& places);
  void NoteEntries(std::string_view section, std::string_view key,
                   const std::vector<std::string_view>& pieces, const CheckPlaces& places);

 private:
  using Name = std::pair<std::string, std::string>;  // in lower case

  static Name NameOf(std::string_view section, std::string_view key);
  Place PlaceOf(const CheckPlaces::Place& place) const;
  void NoteFile(const CheckPlaces::Place& place, const CheckPlaces& places);

  std::map<std::size_t, std::string> files_;  // by number
  std::map<Name, CheckPlaces::Place> keys_;
  std::map<Name, std::vector<CheckPlaces::Place>> entries_;
};

// "trabex.ini:41", or "default".
std::string FormatPlace(const SettingPlaces::Place& place);

}  // namespace trabex
