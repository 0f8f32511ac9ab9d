// Files that a check has read, and where in them a piece of their text stands.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace trabex {

// The files that a check has read. Their texts outlive it.
class CheckPlaces {
 public:
  struct Place {
    std::size_t file = 0;  // its number, from 0
    std::size_t line = 0;  // 0: none
  };

  // `file` is what findings call it. A file may have several texts (copies).
  void Add(std::size_t number, std::string file, std::string_view text);
  // Line 0 of file 0 when `piece` is none of a text.
  Place PlaceOf(std::string_view piece) const;
  const std::string& FileName(std::size_t number) const;

 private:
  struct Source {
    std::size_t number;
    std::string file;
    std::string_view text;
    std::vector<std::size_t> line_begins;
  };
  std::vector<Source> sources_;
};

}  // namespace trabex
