// Characters by their numbers.
#pragma once

#include <string>

namespace trabex {

// The UTF-8 form of a code point that is no half of a pair (RFC 3629).
inline std::string Utf8(char32_t code_point) {
  const auto byte = [](char32_t bits) { return static_cast<char>(static_cast<unsigned char>(bits)); };
  const auto rest = [&](unsigned shift) { return byte(0x80 | ((code_point >> shift) & 0x3F)); };
  if (code_point < 0x80) return {byte(code_point)};
  if (code_point < 0x800) return {byte(0xC0 | (code_point >> 6)), rest(0)};
  if (code_point < 0x10000) return {byte(0xE0 | (code_point >> 12)), rest(6), rest(0)};
  return {byte(0xF0 | (code_point >> 18)), rest(12), rest(6), rest(0)};
}

}  // namespace trabex
