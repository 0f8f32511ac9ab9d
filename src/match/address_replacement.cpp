#include "match/address_replacement.h"

#include "match/mText.h"

namespace trabex {

std::optional<std::string> FindAddressReplacement(std::string_view address, const ReplacementTable& table) {
  const mText::ComplexForm form{.split_commas = true,
                                .split_blanks = true,
                                .open_delimiter = "\"",
                                .close_delimiter = "\"",
                                .undelimit = true};
  for (const ReplacementTable::Rule& rule : table.rules) {
    if (mText::LikeTextComplex(address, rule.key, form)) return rule.value;
  }
  return std::nullopt;
}

}  // namespace trabex
