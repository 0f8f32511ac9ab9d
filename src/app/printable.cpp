#include "app/printable.h"

#include "base/visible_text.h"

namespace trabex {

std::string Printable(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    const TextPiece piece = FirstPiece(text);
    const std::string_view bytes = text.substr(0, piece.size);
    if (piece.is_character && piece.visible) {
      result += bytes;
    } else {
      AppendHex(result, bytes);
    }
    text.remove_prefix(piece.size);
  }
  return result;
}

}  // namespace trabex
