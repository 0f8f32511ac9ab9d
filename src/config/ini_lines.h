// The lines of an initialization file, for both of its readers (all settings, and the early keys).
#pragma once

#include <cstddef>
#include <string_view>

namespace trabex {

// Lines end at CR, LF or CR LF; the last one needs no end. A UTF-8 byte-order mark at the start of the text
// is skipped. Bytes are not checked otherwise: a line may hold NUL and be of any length.
class IniLines {
 public:
  // `text` outlives this object and the lines it gives.
  explicit IniLines(std::string_view text);

  // The next line, without its end and without blanks around (tabs stay); false at the end of the text.
  bool Next(std::string_view& line);
  // The number of the line that Next gave last; the first one is 1.
  std::size_t Number() const { return number_; }

 private:
  std::string_view rest_;
  std::size_t number_ = 0;
};

// Whether the last line of `text` has its end, as a file that was written to its end has it. An empty text
// has no last line: false.
bool LastLineHasEnd(std::string_view text);

}  // namespace trabex
