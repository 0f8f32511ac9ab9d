// The program's title and version as people see them.
#pragma once

#include <string>
#include <string_view>

namespace trabex {

inline constexpr std::string_view kApplicationTitle = "Trabex";

// "3.04.012": the minor number with two digits, the revision with three.
std::string VersionText();
// "Trabex 3.04.012".
std::string TitleAndVersion();

}  // namespace trabex
