#include "match/address_replacement.h"

#include <utility>

#include "match/mText.h"
#include "match/pattern.h"

namespace trabex {

namespace {

bool IsPlain(std::string_view key) {
  return !key.empty() && key.find_first_of(", \"") == std::string_view::npos &&
         pattern::Classify(key) == pattern::Kind::kText;
}

}  // namespace

ReplacementTable::ReplacementTable(std::initializer_list<Rule> rules) {
  for (const Rule& rule : rules) Add(rule.key, rule.value);
}

void ReplacementTable::Add(std::string key, std::string value) {
  if (IsPlain(key)) {
    plain_.try_emplace(key, rules_.size());
  } else {
    patterns_.push_back(rules_.size());
  }
  rules_.push_back({std::move(key), std::move(value)});
}

std::optional<std::string> FindAddressReplacement(std::string_view address, const ReplacementTable& table) {
  const mText::ComplexForm form{.split_commas = true,
                                .split_blanks = true,
                                .open_delimiter = "\"",
                                .close_delimiter = "\"",
                                .undelimit = true};
  const auto plain = table.plain_.find(address);
  const std::size_t first = plain == table.plain_.end() ? table.rules_.size() : plain->second;
  for (const std::size_t index : table.patterns_) {
    if (index > first) break;
    const ReplacementTable::Rule& rule = table.rules_[index];
    if (mText::LikeTextComplex(address, rule.key, form)) return rule.value;
  }
  if (plain == table.plain_.end()) return std::nullopt;
  return table.rules_[first].value;
}

}  // namespace trabex
