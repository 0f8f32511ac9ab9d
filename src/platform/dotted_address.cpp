#include "platform/dotted_address.h"

#include "base/text.h"

namespace trabex {

std::optional<std::uint32_t> ParseDottedAddress(std::string_view text) {
  constexpr int kParts = 4;
  std::uint32_t address = 0;
  std::size_t at = 0;
  for (int part = 0; part < kParts; ++part) {
    if (part > 0 && (at == text.size() || text[at++] != '.')) return std::nullopt;
    const std::size_t begin = at;
    std::uint32_t value = 0;
    while (at < text.size() && at - begin < 3 && IsDigit(text[at])) {
      value = value * 10 + static_cast<std::uint32_t>(text[at++] - '0');
    }
    if (at == begin || value > 255) return std::nullopt;
    address = address << 8 | value;
  }
  if (at != text.size()) return std::nullopt;
  return address;
}

std::string DottedAddress(std::uint32_t address) {
  std::string text;
  for (int shift = 24; shift >= 0; shift -= 8) {
    text += std::to_string(address >> shift & 0xFF);
    if (shift > 0) text += '.';
  }
  return text;
}

}  // namespace trabex
