// The match of a text with a pattern in the plainest way, to hold the others against: which places of the text
// each element can end at.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <vector>

#include "base/text.h"

namespace trabex {

// Whether the list takes `c`; it is what is between the brackets of a well-formed one, without a "!".
inline bool PlainListHolds(std::string_view list, char c) {
  const auto byte = [](char each) { return static_cast<unsigned char>(ToLower(each)); };
  bool holds = false;
  for (std::size_t at = 0; at < list.size();) {
    const bool is_range = at + 2 < list.size() && list[at + 1] == '-';
    const char high = list[is_range ? at + 2 : at];
    holds = holds || (byte(list[at]) <= byte(c) && byte(c) <= byte(high));
    at += is_range ? 3 : 1;
  }
  return holds;
}

// Of a well-formed pattern, negation prefix included; text and pattern are in ASCII.
inline bool PlainMatch(std::string_view text, std::string_view pattern) {
  const bool is_negated = pattern.size() >= 3 && pattern.starts_with("[]");
  if (is_negated) pattern.remove_prefix(2);
  std::vector<char> ends(text.size() + 1);
  ends[0] = 1;
  while (!pattern.empty()) {
    const std::size_t size = pattern[0] == '[' ? pattern.find(']') + 1 : 1;
    const std::string_view element = pattern.substr(0, size);
    pattern.remove_prefix(size);
    if (element == "[]") continue;
    if (element == "*") {
      for (std::size_t at = 1; at < ends.size(); ++at) ends[at] = std::max(ends[at], ends[at - 1]);
      continue;
    }
    const auto takes = [element](char c) {
      if (element == "?") return true;
      if (element == "#") return '0' <= c && c <= '9';
      if (element == "[!]") return c == '!';
      if (element.size() == 1) return ToLower(element[0]) == ToLower(c);
      const bool negated = element[1] == '!';
      return PlainListHolds(element.substr(negated ? 2 : 1, element.size() - (negated ? 3 : 2)), c) !=
             negated;
    };
    for (std::size_t at = text.size(); at > 0; --at)
      ends[at] = ends[at - 1] != 0 && takes(text[at - 1]) ? 1 : 0;
    ends[0] = 0;
  }
  return (ends.back() != 0) != is_negated;
}

}  // namespace trabex
