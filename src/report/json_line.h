// One JSON object on one line (RFC 8259), written into a text that its owner uses again and again, so that no
// line needs memory of its own.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace trabex {

// Appends `text` as the inside of a JSON string. Of bytes that are no UTF-8 each becomes U+FFFD; false when
// there were any.
bool AppendJsonText(std::string& out, std::string_view text);

// Writes the members in the order of the calls. Names of members are plain ASCII.
class JsonLine {
 public:
  // `out` outlives it.
  explicit JsonLine(std::string& out) : out_(out) {}

  // Begins an object; the one before has ended.
  void Begin() {
    out_ += '{';
    first_ = true;
  }

  // A value that is no UTF-8 throughout follows once more, whole and in hexadecimal, as `name`_hex.
  void Text(std::string_view name, std::string_view value);
  void Texts(std::string_view name, const std::vector<std::string>& values);
  void Number(std::string_view name, std::int64_t value);
  // Thousandths of a whole, as in "1.250".
  void Thousandths(std::string_view name, std::int64_t value);
  void Truth(std::string_view name, bool value);
  // Ends the object and the line.
  void End() { out_ += "}\n"; }

 private:
  void Name(std::string_view name, std::string_view suffix = {});
  void Hex(std::string_view bytes);

  std::string& out_;
  bool first_ = true;
};

// A point in time, in milliseconds since 1 January 1970 (universal), as RFC 3339 has it:
// "2026-11-15T13:54:24.123Z". The text of a second is kept for the next calls.
class JsonTime {
 public:
  // Valid until the next call.
  std::string_view Format(std::int64_t milliseconds);

 private:
  std::int64_t second_ = -1;
  std::string text_;
};

}  // namespace trabex
