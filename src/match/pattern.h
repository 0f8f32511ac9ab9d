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

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "match/byte_set.h"

namespace trabex::pattern {

enum class Case { kExact, kFolded };

// Whether `pattern` is malformed anywhere.
bool IsMalformed(std::string_view pattern, Case compare);

// Whether `text` as a whole matches `pattern`, which is well-formed. However that is made, it takes a step for
// each byte of either and at worst one more for each byte of the text and each 64 elements (see
// match/pattern_run.h). Raises std::bad_alloc only.
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

// Compiled patterns with their case folded, in one place, numbered from 0 in the order in which they were
// compiled. The negation prefix is part of a pattern.
class PatternStore {
 public:
  // Returns the pattern's number. Raises 7 "Out of memory" (source "mText.ExpressionList") when the patterns
  // reach 4 GB.
  std::uint32_t Compile(std::string_view pattern);
  std::uint32_t Count() const { return static_cast<std::uint32_t>(patterns_.size()); }
  // A malformed pattern has a number, and that is all.
  bool IsMalformed(std::uint32_t number) const { return patterns_[number].malformed; }
  // Appends the plain texts of `min_size` bytes and more, in lower case, that every text which matches the
  // pattern holds. Valid until the next Compile.
  void AppendRequiredTexts(std::uint32_t number, std::size_t min_size,
                           std::vector<std::string_view>& texts) const;
  // The class of bytes that a text which matches the pattern begins with: the same value for patterns that
  // begin alike.
  std::uint32_t FirstByteClass(std::uint32_t number) const;
  // Whether a text, given in lower case, begins with a byte of that class.
  bool BeginsWith(std::string_view folded_text, std::uint32_t first_byte_class) const;
  // The class of patterns that may match a text whatever its first byte, and a text without any.
  static constexpr std::uint32_t kAnyFirstByte = std::numeric_limits<std::uint32_t>::max();
  // Gives back room that was kept for more patterns.
  void Shrink();
  // Whether a text, given in lower case, matches the pattern.
  bool Matches(std::uint32_t number, std::string_view folded_text) const;

 private:
  struct CompiledForm;
  struct Compiled {
    std::uint32_t begin;        // in bytes_; the next one's begin, or the end of all, is its end
    std::uint32_t min_size;     // bytes that a matching text has at least
    std::uint32_t last : 29;    // the last code
    std::uint32_t has_run : 1;  // matching texts may be longer than that
    std::uint32_t negated : 1;
    std::uint32_t malformed : 1;
  };

  std::uint32_t End(std::uint32_t number) const;
  std::uint32_t ListCode(std::string_view list, bool negated);
  void Store(std::uint32_t code);

  std::string bytes_;  // the codes of all patterns
  std::vector<Compiled> patterns_;
  std::vector<ByteSet> lists_;
  std::unordered_map<std::string, std::uint32_t> list_codes_;  // lists by how they are written
};

}  // namespace trabex::pattern
