#include "config/ini_paths.h"

#include <algorithm>

#include "platform/files.h"

namespace trabex::mCommon {

namespace {

bool HasSeparatorAt(std::string_view path, std::size_t at) {
  return at < path.size() && IsPathSeparator(path[at]);
}

// Whether `path` does not lie under the program's directory.
bool StaysAsItIs(std::string_view path) {
  return IsAbsolutePath(path) || (path.starts_with('.') && HasSeparatorAt(path, 1)) ||
         (path.starts_with("..") && HasSeparatorAt(path, 2));
}

}  // namespace

std::string JoinPath(std::string_view base, std::string_view name) {
  const bool base_ends = !base.empty() && IsPathSeparator(base.back());
  const bool name_begins = HasSeparatorAt(name, 0);
  std::string path(base);
  if (!base_ends && !name_begins) path += kPathSeparator;
  path += base_ends && name_begins ? name.substr(1) : name;
  return path;
}

std::string ResolveIniPath(std::string_view given, std::string_view program_directory,
                           std::string_view program_name) {
  if (given.empty()) return JoinPath(program_directory, std::string(program_name) + ".ini");
  return ResolveFilePath(given, program_directory);
}

std::string ResolveFilePath(std::string_view setting, std::string_view program_directory) {
  if (setting.empty() || StaysAsItIs(setting)) return std::string(setting);
  return JoinPath(program_directory, setting);
}

std::string ResolveDatabasePath(std::string_view setting, std::string_view program_directory) {
  if (std::any_of(setting.begin(), setting.end(), IsPathSeparator)) return std::string(setting);
  return JoinPath(JoinPath(program_directory, "GreyListing"), setting.empty() ? "GreyListing.gldb" : setting);
}

}  // namespace trabex::mCommon
