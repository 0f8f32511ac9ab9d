#include "base/delimited_text.h"

#include <algorithm>
#include <string>

#include "base/error.h"
#include "base/text.h"

namespace trabex::mCommon {

namespace {

bool StandsAt(std::string_view text, std::size_t at, std::string_view what, Compare compare) {
  if (what.empty() || at > text.size() || text.size() - at < what.size()) return false;
  const std::string_view here = text.substr(at, what.size());
  return compare == Compare::kExact ? here == what : EqualNoCase(here, what);
}

// The position after the delimited part whose open delimiter ends before `at`, or npos when the part has no
// end.
std::size_t BehindPart(std::string_view text, std::size_t at, std::string_view close, Compare compare) {
  while (at < text.size()) {
    // Paths and list entries are mostly one such part.
    if (compare == Compare::kExact) at = std::min(text.find(close, at), text.size());
    if (!StandsAt(text, at, close, compare)) {
      ++at;
    } else if (StandsAt(text, at + close.size(), close, compare)) {
      at += 2 * close.size();
    } else {
      return at + close.size();
    }
  }
  return std::string_view::npos;
}

}  // namespace

std::string_view Undelimit(std::string_view text, std::string_view open, std::string_view close,
                           Compare compare) {
  const bool begins = open.empty() || StandsAt(text, 0, open, compare);
  const bool ends = close.empty() || (text.size() >= close.size() &&
                                      StandsAt(text, text.size() - close.size(), close, compare));
  if (!begins || !ends || text.size() < open.size() + close.size()) {
    throw Error(error_number::kBadFileContent, "mCommon.Undelimit",
                "Invalid delimited string \"" + std::string(text) + "\".");
  }
  return text.substr(open.size(), text.size() - open.size() - close.size());
}

std::size_t InstrOutsise(std::size_t start, std::string_view text, std::string_view search,
                         std::string_view open, std::string_view close, Compare compareSearch,
                         Compare compareDelimiters) {
  if (close.empty()) close = open;
  std::size_t at = start == 0 ? 0 : start - 1;
  while (at < text.size()) {
    if (StandsAt(text, at, search, compareSearch)) return at + 1;
    if (!StandsAt(text, at, open, compareDelimiters)) {
      ++at;
      continue;
    }
    at = BehindPart(text, at + open.size(), close, compareDelimiters);
    if (at == std::string_view::npos) {
      throw Error(error_number::kBadFileContent, "mCommon.InstrOutsise",
                  "Unbalanced delimiters in delimited string \"" + std::string(text) + "\".");
    }
  }
  return 0;
}

std::vector<std::string_view> SplitOutside(std::string_view text, std::string_view separator,
                                           std::string_view open, std::string_view close,
                                           SplitOptions options) {
  std::vector<std::string_view> pieces;
  const auto add = [&](std::string_view piece) {
    if (!piece.empty() || !options.skipEmpty) pieces.push_back(piece);
  };
  std::size_t from = 0;
  while (options.limit < 0 || pieces.size() + 1 < static_cast<std::size_t>(options.limit)) {
    const std::size_t at =
        InstrOutsise(from + 1, text, separator, open, close, options.compareMode, options.compareMode);
    if (at == 0) break;
    add(text.substr(from, at - 1 - from));
    from = at - 1 + separator.size();
  }
  add(text.substr(from));
  return pieces;
}

}  // namespace trabex::mCommon
