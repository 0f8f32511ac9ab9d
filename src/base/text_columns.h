// The room that text takes where every character has one column or two, on a terminal. The same on every machine,
// whatever its locale.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace trabex {

// 1 or 2; 0 for a character that is not shown by itself: one that is not visible (base/visible_text.h), one that
// combines with the character before it, and one that is not assigned.
std::size_t CharacterColumns(char32_t code);

// How a text that does not fit ends.
enum class CutSign {
  kNone,
  kEllipsis,  // "…", in its last column
};

// Appends `text` to `line` as UTF-8 that takes `columns` columns at most, and returns how many it takes. What is no
// UTF-8, or has no column of its own, is shown as "?": so nothing that a client sent reaches beyond its field.
std::size_t AppendColumns(std::string& line, std::string_view text, std::size_t columns,
                          CutSign cut = CutSign::kNone);

}  // namespace trabex
