// What the systems have in common about paths.
#pragma once

#include <string>
#include <string_view>

namespace trabex {

// A drive letter, ":" and a separator, or two backslashes: no other system's path looks like that.
bool NamesDriveOrServer(std::string_view path);

// The running executable. Each system has its own.
const std::string& ProgramPath();

}  // namespace trabex
