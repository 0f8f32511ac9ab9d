#include "app/check_places.h"

#include <algorithm>
#include <cassert>
#include <functional>
#include <utility>

namespace trabex {

void CheckPlaces::Add(std::size_t number, std::string file, std::string_view text) {
  Source source{number, std::move(file), text, {0}};
  for (std::size_t at = 0; at < text.size(); ++at) {
    // CR LF is one line end.
    if (text[at] == '\n' || (text[at] == '\r' && text.substr(at + 1, 1) != "\n")) {
      source.line_begins.push_back(at + 1);
    }
  }
  sources_.push_back(std::move(source));
}

CheckPlaces::Place CheckPlaces::PlaceOf(std::string_view piece) const {
  // Pointers into different texts have an order only by std::less_equal.
  const std::less_equal<const char*> not_behind;
  for (const Source& source : sources_) {
    const char* const begin = source.text.data();
    if (piece.data() == nullptr || begin == nullptr) continue;
    if (!not_behind(begin, piece.data()) || !not_behind(piece.data(), begin + source.text.size())) continue;
    const auto offset = static_cast<std::size_t>(piece.data() - begin);
    const auto next = std::upper_bound(source.line_begins.begin(), source.line_begins.end(), offset);
    return {source.number, static_cast<std::size_t>(next - source.line_begins.begin())};
  }
  return {};
}

const std::string& CheckPlaces::FileName(std::size_t number) const {
  const auto found = std::find_if(sources_.begin(), sources_.end(),
                                  [&](const Source& source) { return source.number == number; });
  assert(found != sources_.end());
  return found->file;
}

}  // namespace trabex
