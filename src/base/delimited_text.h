// Text with delimited parts: quoted words, addresses in angle brackets.
//
// A delimited part runs from an open delimiter to the next close delimiter; a close delimiter that another
// one follows at once does not end the part (doubling escapes it). With an empty open delimiter there are no
// delimited parts; an empty close delimiter means the same as the open one (not in Undelimit, where it means
// that there is none).
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

namespace trabex::mCommon {

// How separators, delimiters and search texts are compared.
enum class Compare { kExact, kNoCase };

// The text between `open` at its start and `close` at its end; doubled delimiters inside stay doubled.
// The view points into `text`. Raises 321 "Invalid delimited string \"<text>\"." (source "mCommon.Undelimit")
// when a delimiter that is not empty is missing, or the text is shorter than both together.
std::string_view Undelimit(std::string_view text, std::string_view open, std::string_view close,
                           Compare compare = Compare::kExact);

// The 1-based position of `search` (not empty) in `text` at or after `start` (1-based) and outside delimited
// parts; 0 when there is none. Delimited parts are read from `start` on. Raises 321 "Unbalanced delimiters in
// delimited string \"<text>\"." (source "mCommon.InstrOutsise") when a part that begins before the position
// found has no end.
std::size_t InstrOutsise(std::size_t start, std::string_view text, std::string_view search,
                         std::string_view open, std::string_view close,
                         Compare compareSearch = Compare::kExact,
                         Compare compareDelimiters = Compare::kExact);

struct SplitOptions {
  int limit = -1;  // the greatest number of pieces, of which the last one is the rest; -1: any number
  Compare compareMode = Compare::kExact;
  bool skipEmpty = false;  // empty pieces are left out
};

// The pieces of `text` between separators outside delimited parts; they keep their delimiters and point into
// `text`. Raises what InstrOutsise raises.
std::vector<std::string_view> SplitOutside(std::string_view text, std::string_view separator,
                                           std::string_view open, std::string_view close,
                                           SplitOptions options = {});

}  // namespace trabex::mCommon
