#include "base/text_columns.h"

#include <utf8proc.h>

#include <algorithm>
#include <cstdint>

#include "base/visible_text.h"

namespace trabex {

namespace {

constexpr std::string_view kEllipsis = "\xE2\x80\xA6";

// Returns the columns taken; `whole` says whether all of the text fitted.
std::size_t Append(std::string& line, std::string_view text, std::size_t columns, bool& whole) {
  std::size_t used = 0;
  while (!text.empty()) {
    const TextPiece piece = FirstPiece(text);
    const std::size_t width = piece.is_character ? CharacterColumns(piece.code) : 0;
    const std::size_t taken = std::max<std::size_t>(width, 1);
    if (used + taken > columns) break;
    if (width == 0) {
      line += '?';
    } else {
      line.append(text.substr(0, piece.size));
    }
    used += taken;
    text.remove_prefix(piece.size);
  }
  whole = text.empty();
  return used;
}

}  // namespace

std::size_t CharacterColumns(char32_t code) {
  if (code >= ' ' && code <= '~') return 1;
  if (!IsVisible(code)) return 0;
  const int width = utf8proc_charwidth(static_cast<utf8proc_int32_t>(code));
  return width <= 0 ? 0 : static_cast<std::size_t>(std::min(width, 2));
}

std::size_t AppendColumns(std::string& line, std::string_view text, std::size_t columns, CutSign cut) {
  const std::size_t start = line.size();
  bool whole = true;
  const std::size_t used = Append(line, text, columns, whole);
  if (whole || cut == CutSign::kNone || columns == 0) return used;
  line.resize(start);
  const std::size_t before = Append(line, text, columns - 1, whole);
  line += kEllipsis;
  return before + 1;
}

}  // namespace trabex
