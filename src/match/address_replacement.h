// Sender and recipient addresses that are replaced as a whole.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace trabex {

// One section's rules in file order; each key name is a pattern list.
struct ReplacementTable {
  struct Rule {
    std::string key;
    std::string value;
    friend bool operator==(const Rule&, const Rule&) = default;
  };
  std::vector<Rule> rules;
  friend bool operator==(const ReplacementTable&, const ReplacementTable&) = default;
};

// The value under the first key that `address` matches. Raises what mText::LikeTextComplex raises.
std::optional<std::string> FindAddressReplacement(std::string_view address, const ReplacementTable& table);

}  // namespace trabex
