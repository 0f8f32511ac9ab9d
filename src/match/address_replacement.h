// Sender and recipient addresses that are replaced as a whole.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "match/mText.h"

namespace trabex {

// One section's rules in file order; each key name is a pattern list. Most keys are one pattern, which are
// found as those of an expression list are, so that a table of aliases may be long; the others are tried in
// turn.
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
  friend const Rule* FindReplacementRule(std::string_view address, const ReplacementTable& table);

  std::vector<Rule> rules_;
  ExpressionList single_;                  // the keys of one well-formed pattern, each once
  std::vector<std::size_t> single_rules_;  // their rules
  std::vector<std::size_t> other_rules_;
};

// The rule of the first key that `address` matches, nullptr when there is none; valid until the table changes.
// Raises what mText::LikeTextComplex raises.
const ReplacementTable::Rule* FindReplacementRule(std::string_view address, const ReplacementTable& table);
// Its value.
std::optional<std::string> FindAddressReplacement(std::string_view address, const ReplacementTable& table);

}  // namespace trabex
