// On what a decision rests: the keys of the settings with their entries, and where these stand.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/setting_places.h"
#include "config/configuration.h"
#include "config/settings_table.h"
#include "match/decision_trace.h"

namespace trabex {

struct Ground {
  std::string section;
  std::string key;
  std::string entry;  // of a list the one that matches, of a number its value; "" for none
  SettingPlaces::Place place = {};
  bool matches = false;  // of a list: whether an entry does
};

// Notes what decisions rest on. Lists are told by where they lie: all belong to `configuration`.
class GroundNotes final : public DecisionTrace {
 public:
  // Both outlive it.
  GroundNotes(const Configuration& configuration, const SettingPlaces& places)
      : configuration_(configuration), places_(places) {}

  void Asked(const ExpressionList& list, std::string_view value, bool matches) override;
  void Asked(const IPRangeList& list, const IPAddress& address, bool matches) override;
  void Replaced(const ReplacementTable& table, const ReplacementTable::Rule& rule) override;
  void Changed(const cReplaces& rules, std::size_t rule) override;

  // What was noted since the last call.
  struct Notes {
    std::vector<Ground> asked;  // lists
    std::optional<Ground> replaced;
    std::vector<Ground> changed;  // rules for the reply

    // The last list of the section that has an entry for what was looked for; nullptr when none has.
    const Ground* LastMatch(std::string_view section) const;
    const Ground* Find(std::string_view section, std::string_view key) const;
  };
  Notes Take();

  // A setting that is no list, with its value.
  Ground Value(std::string_view section, std::string_view key) const;
  // A list without an entry for what was looked for.
  Ground NoEntry(std::string_view section, std::string_view key) const;

 private:
  const Configuration& configuration_;
  const SettingPlaces& places_;
  Notes notes_;
};

// The entry at `index` as an explanation shows it.
std::string EntryText(const ExpressionList& list, std::size_t index);
// The entry of a list of ranges that holds `address`, by its index.
std::optional<std::size_t> FindRange(const IPRangeList& list, const IPAddress& address);

// "[Common] IPBlackList, "192.0.2.0/24", trabex.ini:41"; without an entry "no entry" stands in its place.
std::string FormatGround(const Ground& ground);

}  // namespace trabex
