// Patterns: the first line is a text, the second a pattern list given as one text, each other line an entry
// of an expression list, "&" between the members of a group. However malformed, a list gives the result of
// the scan.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "base/error.h"
#include "base/text.h"
#include "match/mText.h"

namespace {

using namespace trabex;

// The result of a match, or the text of its error.
using Outcome = std::pair<bool, std::string>;

template <class Match>
Outcome OutcomeOf(Match match) {
  try {
    return {match(), ""};
  } catch (const Error& error) {
    return {false, std::to_string(error.Number()) + error.Source() + error.Description()};
  }
}

void Require(bool condition) {
  if (!condition) std::abort();
}

bool Scan(std::string_view text, const ExpressionList& list) {
  for (std::size_t index = 0; index < list.Count(); ++index) {
    if (mText::MatchEntry(text, list.Entry(index), false)) return true;
  }
  return false;
}

void CheckPattern(std::string_view text, const std::string& pattern) {
  const Outcome like = OutcomeOf([&] { return mText::LikeText(text, pattern); });
  Require(mText::IsInvalidPattern(pattern) == !like.second.empty());
  OutcomeOf([&] { return mText::PlainLike(text, pattern); });
  // Under a key of its own it is tried as a parsed pattern.
  ExpressionList list;
  list.Add("", {{pattern}, false});
  Require(OutcomeOf([&] { return list.Contains(text); }) == like);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const auto lines = Split(input, '\n');
  const std::string_view text = lines[0];
  const std::string_view patterns = lines.size() > 1 ? lines[1] : "";
  for (const bool split : {false, true}) {
    OutcomeOf([&] { return mText::LikeTextComplex(text, patterns, {split, true, "\"", "\"", true}); });
    OutcomeOf([&] { return mText::LikeTextComplex(text, patterns, {split, false, "<", ">", true}); });
    OutcomeOf([&] { return mText::LikeTextComplex(text, patterns, {split, true, "", "", false}); });
  }
  ExpressionList list;
  for (std::size_t line = 2; line < lines.size(); ++line) {
    ListEntry entry;
    for (std::string_view member : Split(lines[line], '&')) entry.patterns.emplace_back(member);
    entry.is_group = entry.patterns.size() > 1;
    CheckPattern(text, entry.patterns.front());
    try {
      list.Add(lines[line], entry);
    } catch (const Error& error) {
      Require(error.Number() == error_number::kDuplicateKey);
    }
  }
  Require(OutcomeOf([&] { return list.Contains(text); }) == OutcomeOf([&] { return Scan(text, list); }));
  return 0;
}
