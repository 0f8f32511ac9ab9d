// What of a text from outside the program may be shown, or passed on, as it is. A terminal takes some
// characters for commands, a server takes some for line ends or blanks, and some make a line look like two, or
// like another one.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace trabex {

// One character of a text, or one byte that belongs to no character.
struct TextPiece {
  std::size_t size = 1;       // in bytes
  char32_t code = 0;          // of a character
  bool is_character = false;  // as UTF-8
  // Not visible are control characters (below 32, DEL, U+0080 to U+009F, and the bytes 80 to 9F alone, which
  // terminals take for the same), the line and paragraph separators (U+2028, U+2029), the controls of the
  // writing direction (U+061C, U+200E, U+200F, U+202A to U+202E, U+2066 to U+2069) and the tag characters
  // (U+E0000 to U+E007F).
  bool visible = true;
};

// Whether the character is visible in this sense.
bool IsVisible(char32_t code);

// What `text` (not empty) begins with.
TextPiece FirstPiece(std::string_view text);

// Whether `text` holds a byte below 32 other than a tab, DEL, or one of U+0080 to U+009F in UTF-8 (U+0085 ends
// a line, U+009B begins a terminal's command as ESC and "[" do).
bool HoldsControl(std::string_view text);

// Appends each byte as "\xHH", which is what is shown of one that is not to be shown as it is.
void AppendHex(std::string& text, std::string_view bytes);

// Appends `text` as one line can show it: every CR LF becomes "¶", and each byte of every other character that
// is not visible "\xHH". Bytes that are no UTF-8 otherwise stay as they are.
void AppendVisible(std::string& line, std::string_view text);

}  // namespace trabex
