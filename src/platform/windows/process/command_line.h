// The text of a command line.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace trabex {

// The tokens behind the program's own, which ends with its closing quote or at a blank. Raises 321 "Unbalanced delimiters
// in delimited string \"<text>\".".
std::vector<std::string> SplitCommandLine(std::string_view line);

}  // namespace trabex
