#include "app/near_name.h"

#include <algorithm>
#include <numeric>

#include "base/text.h"

namespace trabex {

std::size_t EditDistance(std::string_view a, std::string_view b, std::size_t limit) {
  const std::size_t longer = std::max(a.size(), b.size());
  if (longer - std::min(a.size(), b.size()) > limit) return limit + 1;
  // distances[j]: between the part of `a` so far and the first j bytes of `b`.
  std::vector<std::size_t> distances(b.size() + 1);
  std::iota(distances.begin(), distances.end(), std::size_t{0});
  for (std::size_t i = 0; i < a.size(); ++i) {
    std::size_t diagonal = distances[0];
    distances[0] = i + 1;
    for (std::size_t j = 0; j < b.size(); ++j) {
      const std::size_t replaced = diagonal + (ToLower(a[i]) == ToLower(b[j]) ? 0 : 1);
      diagonal = distances[j + 1];
      distances[j + 1] = std::min({replaced, distances[j] + 1, distances[j + 1] + 1});
    }
    if (*std::min_element(distances.begin(), distances.end()) > limit) return limit + 1;
  }
  return std::min(distances.back(), limit + 1);
}

std::string_view NearestName(std::string_view name, const std::vector<std::string>& names) {
  constexpr std::size_t kMaxEdits = 2;
  std::string_view nearest;
  std::size_t least = kMaxEdits + 1;
  for (const std::string& candidate : names) {
    const std::size_t distance = EditDistance(name, candidate, kMaxEdits);
    if (distance >= least) continue;
    least = distance;
    nearest = candidate;
  }
  return nearest;
}

std::string DidYouMean(std::string_view name, const std::vector<std::string>& names) {
  const std::string_view nearest = NearestName(name, names);
  return nearest.empty() ? std::string() : " (did you mean " + Quoted(nearest) + "?)";
}

}  // namespace trabex
