// The folder part of a path.
#pragma once

#include <string>

namespace trabex {

// Where the last name of `path` lies: "." without a separator, "/" for a name in the root.
inline std::string FolderOf(const std::string& path) {
  const std::size_t end = path.find_last_of('/');
  if (end == std::string::npos) return ".";
  return end == 0 ? "/" : path.substr(0, end);
}

}  // namespace trabex
