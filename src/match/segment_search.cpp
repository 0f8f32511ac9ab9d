// All places where the segment may have begun are followed at the same time: bit i of the state says whether
// its first i + 1 elements match the bytes that end here. One byte of the text moves all bits on by one, and
// drops those whose element does not take it (the Shift-And method of Baeza-Yates and Gonnet).
#include "match/segment_search.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

namespace trabex::pattern {

namespace {

constexpr std::size_t kBits = 64;
using Block = std::array<std::uint64_t, kBits>;

// Makes bit j of word i bit i of word j, by exchanging ever smaller quarters.
void Transpose(Block& block) {
  std::uint64_t mask = 0x00000000FFFFFFFFULL;
  for (std::size_t size = kBits / 2; size > 0; size /= 2, mask ^= mask << size) {
    for (std::size_t at = 0; at < kBits; at = ((at | size) + 1) & ~size) {
      const std::uint64_t differing = (block[at] >> size ^ block[at | size]) & mask;
      block[at] ^= differing << size;
      block[at | size] ^= differing;
    }
  }
}

// For each byte the elements that take it, as `words` words of bits.
std::vector<std::uint64_t> TakersOfBytes(std::span<const ByteSet> segment, std::size_t words) {
  std::vector<std::uint64_t> takers(256 * words);
  for (std::size_t word = 0; word < words; ++word) {
    const auto elements = segment.subspan(word * kBits, std::min(kBits, segment.size() - word * kBits));
    for (std::size_t quarter = 0; quarter < ByteSet::kWords; ++quarter) {
      Block block{};
      for (std::size_t at = 0; at < elements.size(); ++at) block[at] = elements[at].Word(quarter);
      Transpose(block);
      for (std::size_t at = 0; at < kBits; ++at) takers[(quarter * kBits + at) * words + word] = block[at];
    }
  }
  return takers;
}

}  // namespace

std::size_t FindSegmentEnd(std::string_view text, std::span<const ByteSet> segment) {
  const std::size_t words = (segment.size() + kBits - 1) / kBits;
  const std::vector<std::uint64_t> takers = TakersOfBytes(segment, words);
  const std::uint64_t last_element = std::uint64_t{1} << ((segment.size() - 1) % kBits);
  std::vector<std::uint64_t> state(words);
  std::size_t used = 0;  // the words that are not 0 are before this one
  for (std::size_t at = 0; at < text.size(); ++at) {
    const std::uint64_t* const takes = &takers[static_cast<unsigned char>(text[at]) * words];
    const std::size_t reached = std::min(used + 1, words);
    std::uint64_t moved_in = 1;
    used = 0;
    for (std::size_t word = 0; word < reached; ++word) {
      const std::uint64_t before = state[word];
      state[word] = (before << 1 | moved_in) & takes[word];
      moved_in = before >> (kBits - 1);
      if (state[word] != 0) used = word + 1;
    }
    if ((state[words - 1] & last_element) != 0) return at + 1;
  }
  return std::string_view::npos;
}

}  // namespace trabex::pattern
