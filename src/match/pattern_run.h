// The match of a text with a pattern, whatever form the pattern has.
//
// A form reads the pattern's elements, each at its position:
//   Read(position)              the element, as a code; the others take such a code
//   Next(code, position)        where the next element begins
//   IsRun(code), IsEmpty(code)  whether it is a "*", or takes nothing
//   Takes(code, char), Bytes(code)  whether it takes that byte; the set of all that it takes
//   Seek(position, text, at)    the first place from `at` on where a match of the element may begin, or one
//                               before it
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <vector>

#include "match/segment_search.h"

namespace trabex::pattern {

// What may be read of a segment in vain, in bytes of the pattern: about what the set-up of the search for it
// costs.
inline constexpr std::size_t kReadInVain = 512;
inline constexpr std::size_t kReadInVainPerByte = 4;

// Where the segment that begins at `position` ends: at the next run, or at `end`.
template <class Form>
std::size_t SegmentEnd(const Form& form, std::size_t position, std::size_t end) {
  while (position != end) {
    const auto code = form.Read(position);
    if (form.IsRun(code)) break;
    position = form.Next(code, position);
  }
  return position;
}

// Where in `text`, at `from` or later, the first match of the segment from `position` to `segment_end` ends;
// when the segment is the `last` one, that is the end of the text. npos when there is none.
template <class Form>
std::size_t SearchSegment(const Form& form, std::string_view text, std::size_t from, std::size_t position,
                          std::size_t segment_end, bool last) {
  std::vector<ByteSet> segment;
  while (position != segment_end) {
    const auto code = form.Read(position);
    if (!form.IsEmpty(code)) segment.push_back(form.Bytes(code));
    position = form.Next(code, position);
  }
  if (text.size() < from || text.size() - from < segment.size()) return std::string_view::npos;
  if (!last) {
    const std::size_t size = FindSegmentEnd(text.substr(from), segment);
    return size == std::string_view::npos ? size : from + size;
  }
  const std::string_view tail = text.substr(text.size() - segment.size());
  const bool matches =
      std::equal(tail.begin(), tail.end(), segment.begin(),
                 [](char c, const ByteSet& bytes) { return bytes.Holds(static_cast<unsigned char>(c)); });
  return matches ? text.size() : std::string_view::npos;
}

// Whether `text` matches the elements from `position` to `end`. Greedy, with backtracking to the last run
// only. That is enough, because what comes before the run has matched at its earliest place, so a longer
// earlier run gains nothing. The segment after a run is tried byte by byte as long as that costs little, as it
// does with nearly all texts; then it is searched for in a way whose cost does not depend on its elements.
template <class Form>
bool Run(std::string_view text, const Form& form, std::size_t position, std::size_t end) {
  constexpr std::size_t kNone = std::string_view::npos;
  std::size_t at = 0;
  std::size_t segment = kNone;  // what comes after the last run
  std::size_t segment_at = 0;   // where it was tried last
  std::size_t in_vain = 0;
  std::size_t limit = kReadInVain;
  while (true) {
    std::size_t next = position;
    if (position != end) {
      const auto code = form.Read(position);
      next = form.Next(code, position);
      if (form.IsRun(code)) {
        if (next == end) return true;
        position = segment = next;
        at = segment_at = form.Seek(position, text, at);
        in_vain = 0;
        limit = kReadInVain;
        continue;
      }
      if (form.IsEmpty(code)) {
        position = next;
        continue;
      }
      // A byte is missing; with a longer run there would be fewer left still.
      if (at == text.size()) return false;
      if (form.Takes(code, text[at])) {
        ++at;
        position = next;
        continue;
      }
    } else if (at == text.size()) {
      return true;
    }
    if (segment == kNone) return false;
    in_vain += next - segment + 1;
    if (in_vain > limit) {
      const std::size_t segment_end = SegmentEnd(form, segment, end);
      limit = kReadInVain + kReadInVainPerByte * (segment_end - segment);
      if (in_vain > limit) {
        at = SearchSegment(form, text, segment_at + 1, segment, segment_end, segment_end == end);
        if (at == kNone || segment_end == end) return at != kNone;
        position = segment_end;
        continue;
      }
    }
    at = segment_at = form.Seek(segment, text, segment_at + 1);
    position = segment;
  }
}

}  // namespace trabex::pattern
