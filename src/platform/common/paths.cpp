#include "platform/common/paths.h"

#include <algorithm>

#include "base/text.h"
#include "platform/files.h"

namespace trabex {

bool IsPathSeparator(char c) {
  return c == '/' || c == '\\';
}

std::string NativePath(std::string_view path) {
  std::string native(path);
  std::replace_if(native.begin(), native.end(), IsPathSeparator, kPathSeparator);
  return native;
}

bool NamesDriveOrServer(std::string_view path) {
  if (path.starts_with("\\\\")) return true;
  if (path.size() < 3) return false;
  const char letter = ToLower(path[0]);
  return letter >= 'a' && letter <= 'z' && path[1] == ':' && IsPathSeparator(path[2]);
}

std::string ProgramDirectory() {
  const std::string& path = ProgramPath();
  return path.substr(0, path.find_last_of(kPathSeparator));
}

std::string ProgramName() {
  std::string name = ProgramPath().substr(ProgramPath().find_last_of(kPathSeparator) + 1);
  const std::size_t dot = name.find_last_of('.');
  if (dot != std::string::npos && dot > 0) name.resize(dot);
  return name;
}

}  // namespace trabex
