// What a check has found so far, each with the piece of text that it is about.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "app/check_places.h"
#include "app/finding.h"
#include "app/setting_places.h"
#include "base/error.h"
#include "config/load_observer.h"

namespace trabex {

// Takes what the readers of settings find, and what is added beside it. The places are told at the end, when all texts
// are known.
class CheckFindings final : public LoadObserver {
 public:
  // `where` is a piece of one of the texts that are read, which outlive this object, or empty.
  void Add(Finding::Severity severity, std::string_view section, std::string_view key, std::string_view where,
           std::string text);

  void BadLine(std::string_view section, std::string_view key, std::string_view where,
               const Error& error) override;
  void BadValue(std::string_view section, std::string_view key, std::string_view where, int number,
                std::string_view description) override;
  void ListRead(std::string_view section, std::string_view key,
                std::vector<std::string_view> places) override;
  void ListFileRead(std::string_view name, std::shared_ptr<const std::string> text) override;

  // Adds the texts of the list files that were read.
  void AddListFiles(CheckPlaces& places) const;
  bool HasBadValue(std::string_view section, std::string_view key) const;
  // Where entry `index` of a list stands; empty: not known.
  std::string_view EntryPlace(std::string_view section, std::string_view key, std::size_t index) const;
  // Notes where the entries of all lists stand.
  void NotePlaces(const CheckPlaces& places, SettingPlaces& noted) const;
  // In the order of the files and their lines, those without a line last.
  std::vector<Finding> Take(const CheckPlaces& places) const;

 private:
  struct Raw {
    Finding::Severity severity;
    std::string section;
    std::string key;
    std::string text;
    std::string_view where;
  };
  using Name = std::pair<std::string, std::string>;  // section and key in lower case

  struct ListFileText {
    std::string name;
    std::shared_ptr<const std::string> text;
  };

  std::vector<Raw> raw_;
  std::vector<ListFileText> list_files_;
  std::set<Name> bad_keys_;
  std::map<Name, std::vector<std::string_view>> places_;
};

}  // namespace trabex
