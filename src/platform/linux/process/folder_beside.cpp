#include "platform/linux/process/folder_beside.h"

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <string_view>

#include "platform/files.h"

namespace trabex {

namespace {

// "" when there is nothing of this name.
std::string RealPath(const std::string& path) {
  std::array<char, PATH_MAX> resolved{};
  return realpath(path.c_str(), resolved.data()) == nullptr ? std::string() : resolved.data();
}

// Both are real paths.
bool LiesIn(std::string_view path, std::string_view folder) {
  return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == kPathSeparator);
}

bool MayChange(const std::string& path) {
  return faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) == 0;
}

// Folders in which a file may be run or read by whatever else the user runs.
std::vector<std::string> Homes() {
  std::vector<std::string> places;
  if (const passwd* const user = getpwuid(geteuid())) places.emplace_back(user->pw_dir);
  for (const char* const name : {"HOME", "XDG_RUNTIME_DIR"}) {
    if (const char* const home = std::getenv(name)) places.emplace_back(home);
  }
  return places;
}

}  // namespace

std::string ParentOf(const std::string& folder) {
  const std::size_t end = folder.find_last_not_of(kPathSeparator);
  if (end == std::string::npos) return {};
  return RealPath(FolderOf(folder.substr(0, end + 1)));
}

bool MayWriteBeside(const std::string& folder, const DecidingPlaces& deciding,
                    const std::vector<std::string>& written) {
  const std::string parent = ParentOf(folder);
  if (geteuid() == 0 || parent.empty() || parent == "/") return false;
  const auto is_written = [&](const std::string& place) {
    return std::any_of(written.begin(), written.end(), [&](const std::string& one) {
      const std::string real = RealPath(one);
      return !real.empty() && LiesIn(place, real);
    });
  };
  const std::vector<std::string> homes = Homes();
  const bool in_a_home = std::any_of(homes.begin(), homes.end(), [&](const std::string& each) {
    const std::string place = RealPath(each);
    return !place.empty() && place != "/" && LiesIn(parent, place) && !is_written(place);
  });
  if (in_a_home) return false;
  std::vector<std::string> guarded = homes;
  guarded.push_back(RealPath("/proc/self/exe"));
  guarded.push_back(FolderOf(guarded.back()));
  guarded.insert(guarded.end(), deciding.places.begin(), deciding.places.end());
  const auto lies_beside = [&](const std::string& place) {
    return !place.empty() && LiesIn(place, parent) && !is_written(place);
  };
  const auto any_of = [&](const std::vector<std::string>& places, bool are_trees) {
    return std::any_of(places.begin(), places.end(), [&](const std::string& each) {
      const std::string place = RealPath(each);
      return lies_beside(place) && (MayChange(place) || (are_trees && IsFolder(place)));
    });
  };
  return !any_of(guarded, false) && !any_of(deciding.trees, true);
}

}  // namespace trabex
