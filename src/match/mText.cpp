#include "match/mText.h"

#include <algorithm>
#include <utility>

#include "base/delimited_text.h"
#include "base/error.h"
#include "base/text.h"
#include "base/unicode_fold.h"
#include "match/pattern.h"

namespace trabex::mText {

namespace {

using pattern::Case;

void CheckPattern(std::string_view pattern, Case compare, const char* source) {
  if (!pattern::IsMalformed(pattern, compare)) return;
  throw Error(error_number::kBadPattern, source,
              "Invalid Regular Expression in string: \"" + std::string(pattern) + "\".");
}

// Negation prefix included.
bool MatchesFolded(std::string_view text, std::string_view pattern) {
  if (!pattern::IsNegated(pattern)) return pattern::Matches(text, pattern, Case::kFolded);
  return !pattern::Matches(text, pattern.substr(2), Case::kFolded);
}

// A pattern list with its form, the close delimiter filled in.
class ComplexPattern {
 public:
  explicit ComplexPattern(const ComplexForm& form) : form_(form) {
    if (form_.close_delimiter.empty()) form_.close_delimiter = form_.open_delimiter;
  }

  bool Matches(std::string_view text, std::string_view patterns) const {
    // Most lists are one pattern; those need no taking apart.
    if (IsSinglePart(patterns)) return LikeText(text, patterns);
    if (!form_.split_commas) return MatchesAlternative(text, Trim(patterns));
    const auto alternatives = SplitAt(patterns, ",", false);
    return std::any_of(alternatives.begin(), alternatives.end(), [&](std::string_view alternative) {
      return MatchesAlternative(text, Trim(alternative));
    });
  }

 private:
  bool IsSinglePart(std::string_view patterns) const {
    return !patterns.empty() && patterns.find_first_of(", ") == std::string_view::npos &&
           (form_.open_delimiter.empty() ||
            FindNoCase(patterns, form_.open_delimiter) == std::string_view::npos);
  }

  std::vector<std::string_view> SplitAt(std::string_view text, std::string_view separator,
                                        bool skip_empty) const {
    return mCommon::SplitOutside(text, separator, form_.open_delimiter, form_.close_delimiter,
                                 {.skipEmpty = skip_empty});
  }

  bool MatchesAlternative(std::string_view text, std::string_view alternative) const {
    if (!form_.split_blanks) return MatchesPart(text, alternative);
    if (alternative.empty()) return false;
    const auto parts = SplitAt(alternative, " ", !form_.open_delimiter.empty());
    return std::all_of(parts.begin(), parts.end(),
                       [&](std::string_view part) { return MatchesPart(text, Trim(part)); });
  }

  bool MatchesPart(std::string_view text, std::string_view part) const {
    if (form_.undelimit && !form_.open_delimiter.empty() && StartsWithNoCase(part, form_.open_delimiter)) {
      part = mCommon::Undelimit(part, form_.open_delimiter, form_.close_delimiter, mCommon::Compare::kNoCase);
    }
    return LikeText(text, part);
  }

  ComplexForm form_;
};

}  // namespace

bool LikeText(std::string_view text, std::string_view pattern) {
  CheckPattern(pattern, Case::kFolded, "mText.LikeText");
  if (IsAscii(text) && IsAscii(pattern)) return MatchesFolded(text, pattern);
  return MatchesFolded(FoldText(text), pattern::FoldPattern(pattern));
}

bool PlainLike(std::string_view text, std::string_view pattern) {
  CheckPattern(pattern, Case::kExact, "mText.PlainLike");
  return pattern::Matches(text, pattern, Case::kExact);
}

bool IsInvalidPattern(std::string_view pattern) {
  return pattern::IsMalformed(pattern, Case::kFolded);
}

bool MatchEntry(std::string_view text, const ListEntry& entry, bool default_result) {
  if (entry.patterns.empty()) return !entry.is_group && default_result;
  return std::all_of(entry.patterns.begin(), entry.patterns.end(),
                     [&](const std::string& pattern) { return LikeText(text, pattern); });
}

bool MatchList(std::string_view text, const ExpressionList& list) {
  return list.Contains(text);
}

bool LikeTextComplex(std::string_view text, std::string_view patterns, const ComplexForm& form) {
  try {
    return ComplexPattern(form).Matches(text, patterns);
  } catch (const Error& error) {
    throw Error(error.Number(), "mText.LikeTextComplex", error.Description());
  }
}

}  // namespace trabex::mText
