// Finds those patterns of a long list that may match a text, by a piece of plain text that each of them requires.
//
// A pattern is filed under one piece of its plain texts, of 8, 4 or 2 bytes: a long one, unless many others are
// under each of these. The pieces of a text, one for each byte and size, are
// looked up then, and only the patterns under them have to be tried: with a million patterns a handful.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <string_view>
#include <vector>

#include "base/hash_index.h"

namespace trabex {

class LiteralIndex {
 public:
  // The bytes of the shortest piece.
  static constexpr std::size_t kMinPiece = 2;

  // Files a pattern, all of whose `texts` (in lower case) a matching text holds; its number is the count of
  // those filed before it. False, and nothing is changed, when no text is as long as the shortest piece.
  // Raises std::bad_alloc then too.
  bool Add(std::span<const std::string_view> texts);
  // Calls `visit(number)` for each pattern whose piece `folded_text` (in lower case) holds, once, in no order,
  // until it returns false. There may be some whose piece it does not hold.
  template <class Visit>
  void ForEachIn(std::string_view folded_text, Visit visit) const {
    if (next_.empty()) return;
    for (const std::uint32_t first : FirstsIn(folded_text)) {
      for (std::uint32_t number = first; number != HashIndex::kNone; number = next_[number]) {
        if (!visit(number)) return;
      }
    }
  }
  // Gives back room that was kept for more patterns. From now on pieces are chosen with less care.
  void Shrink();

 private:
  // A size of pieces, and how many patterns under one of the largest size weigh as much as none under one of
  // this: the shorter it is, the more texts hold it.
  struct PieceSize {
    std::size_t bytes;
    std::size_t weight;
  };
  static constexpr std::array<PieceSize, 3> kSizes{{{8, 1}, {4, 4}, {kMinPiece, 32}}};

  struct Choice {
    std::uint32_t hash = 0;
    std::size_t size = 0;  // index in kSizes
    std::size_t weight = std::numeric_limits<std::size_t>::max();
  };

  std::uint32_t FirstUnder(std::uint32_t hash) const {
    return firsts_.Find(hash, [](std::uint32_t) { return true; });
  }
  std::size_t CountUnder(std::uint32_t hash) const;
  void Compare(std::span<const std::string_view> texts, std::size_t size, Choice& best) const;
  std::vector<std::uint32_t> FirstsIn(std::string_view text) const;

  HashIndex firsts_;                  // by the hash of the piece
  std::vector<std::uint32_t> next_;   // of the same piece
  std::vector<std::uint32_t> count_;  // under the piece of which this is the first; until Shrink
  bool is_shrunk_ = false;
  std::array<bool, kSizes.size()> is_used_{};
};

}  // namespace trabex
