// Small helpers for text, which is bytes everywhere. Letter case is folded for ASCII only. These functions
// raise no error, and keep no view beyond the call unless they return one (then it points into the
// argument).
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace trabex {

inline constexpr std::string_view kCrLf = "\r\n";

char ToLower(char c);
char ToUpper(char c);
bool IsDigit(char c);
// A control character: below 32, or DEL (127). A tab is one.
bool IsControl(char c);
// Whether `c` occurs in the names of hosts between the dots: an ASCII letter or digit, "-" or "_".
bool IsHostNameByte(char c);

std::string ToLower(std::string_view text);
std::string ToUpper(std::string_view text);

// `text` without leading and trailing blanks (character 32 only; a tab stays).
std::string_view Trim(std::string_view text);

// `text` without the CR LF at its end, if it has one.
std::string_view WithoutLineEnd(std::string_view text);

// Comparisons without regard to ASCII case.
bool EqualNoCase(std::string_view a, std::string_view b);
bool StartsWithNoCase(std::string_view text, std::string_view prefix);
bool EndsWithNoCase(std::string_view text, std::string_view suffix);
// Position of `search` in `text` at or after `start`, or npos; an empty `search` is found at `start`.
std::size_t FindNoCase(std::string_view text, std::string_view search, std::size_t start = 0);

// `text` with every occurrence of `search` (not empty) replaced; occurrences do not overlap and the
// replacement is not searched again.
std::string ReplaceAll(std::string_view text, std::string_view search, std::string_view replacement);
std::string ReplaceAllNoCase(std::string_view text, std::string_view search, std::string_view replacement);

// The pieces between the separators, empty ones included; an empty `text` gives one empty piece. The views
// point into `text`.
std::vector<std::string_view> Split(std::string_view text, char separator);

// The text before the first blank (all of it when there is none).
std::string_view FirstWord(std::string_view text);

// The domain of a mail address: what follows its last "@"; all of it when there is none.
std::string_view AddressDomain(std::string_view address);

// `text` in double quotes; those inside stay as they are.
std::string Quoted(std::string_view text);

// `text` right-aligned in `width` bytes; a longer text is not cut.
std::string AlignRight(std::string_view text, std::size_t width);
// The same at the end of `line`.
inline void AppendAlignedRight(std::string& line, std::string_view text, std::size_t width) {
  if (text.size() < width) line.append(width - text.size(), ' ');
  line.append(text);
}
// `number` (0 or more) with at least `width` digits.
std::string ZeroPadded(long long number, std::size_t width);

// For containers whose keys are compared without regard to case; both take views, so a look-up copies
// nothing.
struct HashNoCase {
  using is_transparent = void;
  std::size_t operator()(std::string_view text) const noexcept;
};
struct SameNoCase {
  using is_transparent = void;
  bool operator()(std::string_view a, std::string_view b) const noexcept { return EqualNoCase(a, b); }
};
// Exact-case counterpart for look-ups by view.
struct HashText {
  using is_transparent = void;
  std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>{}(text); }
};

}  // namespace trabex
