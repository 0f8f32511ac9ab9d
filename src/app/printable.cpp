#include "app/printable.h"

#include "base/visible_text.h"

namespace trabex {

std::string Printable(std::string_view text) {
  static constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    const TextPiece piece = FirstPiece(text);
    const std::string_view bytes = text.substr(0, piece.size);
    if (piece.is_character && piece.visible) {
      result += bytes;
    } else {
      for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        result.append("\\x") += kDigits[byte >> 4];
        result += kDigits[byte & 0xF];
      }
    }
    text.remove_prefix(piece.size);
  }
  return result;
}

}  // namespace trabex
