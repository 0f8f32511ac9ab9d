// Sender and recipient addresses that are replaced as a whole.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/text.h"

namespace trabex {

// One section's rules in file order; each key name is a pattern list. A key that is one plain address is
// found by its hash, so that a table of aliases may be long; the others are tried one after the other.
class ReplacementTable {
 public:
  struct Rule {
    std::string key;
    std::string value;
    friend bool operator==(const Rule&, const Rule&) = default;
  };

  ReplacementTable() = default;
  ReplacementTable(std::initializer_list<Rule> rules);
  void Add(std::string key, std::string value);
  const std::vector<Rule>& Rules() const { return rules_; }
  friend bool operator==(const ReplacementTable& a, const ReplacementTable& b) {
    return a.rules_ == b.rules_;
  }

 private:
  friend std::optional<std::string> FindAddressReplacement(std::string_view address,
                                                           const ReplacementTable& table);

  std::vector<Rule> rules_;
  std::unordered_map<std::string, std::size_t, HashNoCase, SameNoCase> plain_;  // the first rule of each key
  std::vector<std::size_t> patterns_;                                           // the other rules
};

// The value under the first key that `address` matches. Raises what mText::LikeTextComplex raises.
std::optional<std::string> FindAddressReplacement(std::string_view address, const ReplacementTable& table);

}  // namespace trabex
