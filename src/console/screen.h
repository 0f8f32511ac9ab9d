// A whole picture of a terminal: lines of pieces of text, each with its place and its look.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/text_columns.h"

namespace trabex {

enum class Colour : std::uint8_t { kNone, kRed, kGreen, kYellow, kCyan };

struct Look {
  Colour colour = Colour::kNone;
  bool bold = false;
  bool reverse = false;

  friend bool operator==(const Look&, const Look&) = default;
};

struct ScreenPiece {
  std::size_t column = 0;
  Look look;
  std::string text;  // made by AppendColumns, so that its room is known

  friend bool operator==(const ScreenPiece&, const ScreenPiece&) = default;
};

// Pieces do not overlap; what lies between them is blank.
using ScreenLine = std::vector<ScreenPiece>;

struct Screen {
  std::vector<ScreenLine> lines;  // from the top
  bool takes_text = false;        // the user is typing: a letter is no command

  friend bool operator==(const Screen&, const Screen&) = default;
};

// Puts `text` at `column` of `line`, with room for `columns`; returns how many it takes.
inline std::size_t Put(ScreenLine& line, std::size_t column, std::string_view text, std::size_t columns,
                       Look look = {}, CutSign cut = CutSign::kNone) {
  ScreenPiece piece{.column = column, .look = look, .text = {}};
  const std::size_t used = AppendColumns(piece.text, text, columns, cut);
  if (used > 0) line.push_back(std::move(piece));
  return used;
}

}  // namespace trabex
