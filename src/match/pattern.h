// The wildcard language of text patterns: its grammar, and two ways to match. A pattern that is used once is
// matched as it is written, without any allocation; the patterns of a list are compiled once.
//
// Inside [...] every byte means itself, apart from a "!" in front and a "-" between two others:
//   - "low-high" takes the bytes from low to high;
//   - what follows a range begins anew, so "[a-c-e]" holds a to c, "-" and "e";
//   - a "-" that begins or ends the list, or is where a new byte or range would begin, is a plain "-";
//   - "[]" is the empty text wherever it occurs, "[!]" is a plain "!";
//   - "]" ends the list always, so it cannot be in one; outside brackets it is a plain "]".
// Malformed are a "[" without its "]" and a range whose ends descend. With folded case both ends and the byte
// are compared as lower case: "[A-z]" is all letters and nothing else, "[Z-a]" descends.
#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace trabex::pattern {

enum class Case { kExact, kFolded };

// Whether `pattern` is malformed anywhere.
bool IsMalformed(std::string_view pattern, Case compare);

// Whether `text` as a whole matches `pattern`, which is well-formed. Takes time in proportion to the product
// of both sizes at worst.
bool Matches(std::string_view text, std::string_view pattern, Case compare);

// Whether `pattern` has the prefix "[]" that means "not": "[]" alone is the empty text.
inline bool IsNegated(std::string_view pattern) {
  return pattern.size() >= 3 && pattern[0] == '[' && pattern[1] == ']';
}

// The pattern for folded texts (see base/unicode_fold.h) that `pattern`, which is well-formed, means:
// the text between its wildcards is folded, and what becomes a "?", "*", "#" or "[" by that means
// itself. Lists in brackets stay as they are, since each takes one byte.
std::string FoldPattern(std::string_view pattern);

// How a pattern can be found in a list.
enum class Kind : std::uint8_t {
  kText,    // no wildcards: equal to the text
  kSuffix,  // "*" and plain text: the end of the text
  kOther,   // has to be tried, or is malformed
};
Kind Classify(std::string_view pattern);

// One compiled pattern, negation prefix included. Its codes lie in the store that compiled it.
struct CompiledPattern {
  std::uint32_t begin = 0;
  std::uint32_t end = 0;
  std::uint32_t last = 0;      // the last code
  std::uint32_t min_size = 0;  // bytes that a matching text has at least
  bool has_run = false;        // matching texts may be longer than that
  bool negated = false;
  bool malformed = false;  // cannot be matched
};

// Compiled patterns with their case folded, in one place. Those that it is given back are its own.
class PatternStore {
 public:
  // Raises 7 "Out of memory" (source "mText.ExpressionList") when the patterns reach 4 GB.
  CompiledPattern Compile(std::string_view pattern);
  // The class of bytes that a text which matches `compiled` (not malformed) begins with: the same value for
  // patterns that begin alike.
  std::uint32_t FirstByteClass(const CompiledPattern& compiled) const;
  // Whether a text, given in lower case, begins with a byte of that class.
  bool BeginsWith(std::string_view folded_text, std::uint32_t first_byte_class) const;
  // The class of patterns that may match a text whatever its first byte, and a text without any.
  static constexpr std::uint32_t kAnyFirstByte = std::numeric_limits<std::uint32_t>::max();
  // Gives back room that was kept for more patterns.
  void Shrink() { bytes_.shrink_to_fit(); }
  // Whether a text, given in lower case, matches `compiled` (not malformed).
  bool Matches(const CompiledPattern& compiled, std::string_view folded_text) const;

 private:
  struct CompiledForm;

  std::uint32_t ListCode(std::string_view list, bool negated);
  std::uint32_t CodeOf(std::string_view pattern, std::size_t at);
  void Store(std::uint32_t code);

  std::string bytes_;  // the codes of all patterns
  std::vector<std::bitset<256>> lists_;
  std::unordered_map<std::string, std::uint32_t> list_codes_;  // lists by how they are written
};

}  // namespace trabex::pattern
