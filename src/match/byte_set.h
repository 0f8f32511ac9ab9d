// A set of bytes: what one element of a pattern takes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace trabex::pattern {

class ByteSet {
 public:
  // The bytes that one word holds, the lowest first.
  static constexpr unsigned kBitsPerWord = 64;
  static constexpr unsigned kWords = 256 / kBitsPerWord;

  bool Holds(unsigned char byte) const {
    return (words_[byte / kBitsPerWord] >> (byte % kBitsPerWord) & 1) != 0;
  }
  std::uint64_t Word(std::size_t index) const { return words_[index]; }

  // Adds the bytes from `low` to `high`, which is not below it.
  void AddRange(unsigned char low, unsigned char high) {
    for (unsigned word = low / kBitsPerWord; word <= high / kBitsPerWord; ++word) {
      std::uint64_t bits = ~std::uint64_t{0};
      if (word == low / kBitsPerWord) bits &= ~std::uint64_t{0} << (low % kBitsPerWord);
      if (word == high / kBitsPerWord) bits &= ~std::uint64_t{0} >> (kBitsPerWord - 1 - high % kBitsPerWord);
      words_[word] |= bits;
    }
  }
  // Makes upper-case letters (ASCII) members exactly when their lower-case letters are.
  void FoldCase() {
    constexpr std::uint64_t kUpper = std::uint64_t{0x3FFFFFF} << ('A' % kBitsPerWord);
    std::uint64_t& word = words_['A' / kBitsPerWord];
    word = (word & ~kUpper) | (word >> ('a' - 'A') & kUpper);
  }
  void Invert() {
    for (std::uint64_t& word : words_) word = ~word;
  }

 private:
  std::array<std::uint64_t, kWords> words_{};
};

}  // namespace trabex::pattern
