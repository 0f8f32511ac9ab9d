// Screens as text.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "base/text_columns.h"
#include "base/utf8.h"
#include "console/screen.h"

namespace trabex {

inline std::size_t ColumnsOf(std::string_view text) {
  std::size_t columns = 0;
  while (!text.empty()) {
    const Utf8Character character = FirstUtf8Character(text);
    columns += CharacterColumns(character.code);
    text.remove_prefix(character.size);
  }
  return columns;
}

// Without blanks at its end. Pieces that overlap, or that begin before the one before them, show as "!".
inline std::string LineText(const ScreenLine& line) {
  std::string text;
  std::size_t column = 0;
  for (const ScreenPiece& piece : line) {
    if (piece.column < column) text += '!';
    if (piece.column > column) text.append(piece.column - column, ' ');
    text += piece.text;
    column = piece.column + ColumnsOf(piece.text);
  }
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

inline std::vector<std::string> PictureOf(const Screen& screen) {
  std::vector<std::string> lines;
  for (const ScreenLine& line : screen.lines) lines.push_back(LineText(line));
  return lines;
}

// How far the longest line reaches.
inline std::size_t WidthOf(const Screen& screen) {
  std::size_t width = 0;
  for (const ScreenLine& line : screen.lines) {
    for (const ScreenPiece& piece : line) width = std::max(width, piece.column + ColumnsOf(piece.text));
  }
  return width;
}

}  // namespace trabex
