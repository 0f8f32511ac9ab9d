// What a list of the settings makes of a value, and whether it is consulted at all.
#pragma once

#include <string>
#include <vector>

#include "app/explain_arguments.h"
#include "app/explain_grounds.h"

namespace trabex {

struct ListExplanation {
  std::string section;
  std::string key;
  std::string value;
  std::vector<Ground> matches = {};  // every entry that does
  bool is_consulted = true;          // for some clients
  std::string limits = {};           // for which; "" for all
  std::optional<Ground> limited_by = {};
};

// `asked.list` is a key of section Common, or, where that has none of this name, of GreyListing, or both with a
// point between them. Raises 380 when it is no list, or the value nothing that could be in it.
ListExplanation ExplainList(const ExplainedList& asked, const Configuration& configuration,
                            const SettingPlaces& places);

// A line for each entry that matches, or one that none does, and one that says whether the list is consulted.
std::string FormatListExplanation(const ListExplanation& explanation);
std::string FormatListExplanationJson(const ListExplanation& explanation);

}  // namespace trabex
