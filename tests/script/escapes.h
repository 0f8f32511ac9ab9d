// The one syntax for bytes in the texts of scripts; README.md beside this file lists it.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace trabex::script {

// A text with its escapes resolved. Places are offsets into `bytes`.
struct Decoded {
  std::string bytes;
  std::vector<std::size_t> stars;                            // each "*" that was not escaped
  std::vector<std::size_t> segments;                         // each \|
  std::optional<std::pair<std::size_t, std::size_t>> marks;  // of \< and \>
};

// Raises std::invalid_argument for an escape that is none, and for marks that are no pair.
Decoded Decode(std::string_view text);

// The bytes of a text that holds nothing but bytes. Raises like Decode, and for \| \< and \>.
std::string Unescape(std::string_view text);

// The way back: printable ASCII that Unescape reads as `bytes`. Stars and braces stay as they are.
std::string Escape(std::string_view bytes);

}  // namespace trabex::script
