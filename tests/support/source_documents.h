// The documents of the source tree, as tests read them that hold them against the code.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "base/text.h"
#include "support/temp_folder.h"

namespace trabex {

// A file of the source tree. The test program's CMakeLists.txt tells its path (trabex_tell_source_folder).
inline std::string SourceFile(const std::string& name) {
  return ReadFile(std::string(TRABEX_SOURCE_DIR "/") + name);
}

// A line of a table, "| a | b |", as {"a", "b"}.
inline std::vector<std::string> Cells(std::string_view line) {
  std::vector<std::string> cells;
  for (std::string_view cell : Split(line.substr(1, line.size() - 2), '|')) cells.emplace_back(Trim(cell));
  return cells;
}

}  // namespace trabex
