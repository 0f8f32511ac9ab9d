// The name that was meant by a misspelled one.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace trabex {

// The least number of bytes to insert, delete or replace to make `b` of `a`, without regard to the case of
// ASCII letters; more than `limit` counts as `limit` + 1.
std::size_t EditDistance(std::string_view a, std::string_view b, std::size_t limit);

// The first of `names` with the least number of edits from `name`; "" when that is more than two.
std::string_view NearestName(std::string_view name, const std::vector<std::string>& names);

// " (did you mean "X"?)" for the nearest name, or "".
std::string DidYouMean(std::string_view name, const std::vector<std::string>& names);

}  // namespace trabex
