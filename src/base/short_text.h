// The beginning of a text, kept where its owner is, without memory of its own.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace trabex {

template <std::size_t max_size>
class ShortText {
 public:
  static_assert(max_size < 256);

  // Keeps the first max_size bytes of `text`.
  void Assign(std::string_view text) {
    size_ = static_cast<std::uint8_t>(std::min(text.size(), max_size));
    std::copy_n(text.data(), size_, bytes_.data());
  }
  // Valid until the next Assign.
  std::string_view View() const { return {bytes_.data(), size_}; }

 private:
  std::array<char, max_size> bytes_;
  std::uint8_t size_ = 0;
};

}  // namespace trabex
