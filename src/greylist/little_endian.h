// Numbers as bytes, the lowest first, whatever the machine.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace trabex {

// The number that `bytes` (up to 8) are.
inline std::uint64_t FromLittleEndian(std::string_view bytes) {
  std::uint64_t number = 0;
  for (std::size_t i = bytes.size(); i > 0; --i) {
    number = (number << 8) | static_cast<unsigned char>(bytes[i - 1]);
  }
  return number;
}

// The number that the eight bytes at `bytes` are; one load on most machines, unlike the loop above.
inline std::uint64_t EightFromLittleEndian(const char* bytes) {
  if constexpr (std::endian::native == std::endian::little) {
    std::uint64_t number = 0;
    std::memcpy(&number, bytes, sizeof number);
    return number;
  } else {
    return FromLittleEndian({bytes, 8});
  }
}

// Appends the lowest `count` bytes of `number`.
inline void AppendLittleEndian(std::string& text, std::uint64_t number, int count) {
  for (; count > 0; --count, number >>= 8) text += static_cast<char>(number & 0xFF);
}

}  // namespace trabex
