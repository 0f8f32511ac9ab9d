#include "match/address_replacement.h"

#include <utility>

#include "base/error.h"

namespace trabex {

namespace {

// Bytes that mean themselves in a pattern list, without commas, blanks and quotes.
bool IsSinglePattern(std::string_view key) {
  return !key.empty() && key.find_first_of(", \"") == std::string_view::npos && !mText::IsInvalidPattern(key);
}

}  // namespace

ReplacementTable::ReplacementTable(std::initializer_list<Rule> rules) {
  for (const Rule& rule : rules) Add(rule.key, rule.value);
}

void ReplacementTable::Add(std::string key, std::string value) {
  if (!IsSinglePattern(key)) {
    other_rules_.push_back(rules_.size());
  } else {
    try {
      single_.Add(key, {.patterns = {key}});
      single_rules_.push_back(rules_.size());
    } catch (const Error& error) {
      if (error.Number() != error_number::kDuplicateKey) throw;  // never found: the first one matches as well
    }
  }
  rules_.push_back({std::move(key), std::move(value)});
}

const ReplacementTable::Rule* FindReplacementRule(std::string_view address, const ReplacementTable& table) {
  const mText::ComplexForm form{.split_commas = true,
                                .split_blanks = true,
                                .open_delimiter = "\"",
                                .close_delimiter = "\"",
                                .undelimit = true};
  const auto single = table.single_.Find(address);
  const std::size_t found = single ? table.single_rules_[*single] : table.rules_.size();
  for (const std::size_t rule : table.other_rules_) {
    if (rule > found) break;
    if (mText::LikeTextComplex(address, table.rules_[rule].key, form)) return &table.rules_[rule];
  }
  return single ? &table.rules_[found] : nullptr;
}

std::optional<std::string> FindAddressReplacement(std::string_view address, const ReplacementTable& table) {
  const ReplacementTable::Rule* const rule = FindReplacementRule(address, table);
  if (rule == nullptr) return std::nullopt;
  return rule->value;
}

}  // namespace trabex
