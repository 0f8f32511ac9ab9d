// Finds where a segment of a pattern, the elements between two runs, matches in a text.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

#include "match/byte_set.h"

namespace trabex::pattern {

// Where in `text` the first match of `segment` (an element for each byte, not empty) ends; npos when there is
// none. Takes a step for each byte of the text and each 64 elements, whatever they are, beside the set-up of
// some microseconds and 2 KB for each 64 elements. Raises std::bad_alloc only.
std::size_t FindSegmentEnd(std::string_view text, std::span<const ByteSet> segment);

}  // namespace trabex::pattern
