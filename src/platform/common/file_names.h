// What replacing a file is made of. Each system has its own. Paths are as the system takes them.
#pragma once

#include <string>

namespace trabex {

// Gives the file `from` the name `to`, as MoveFile does; false when that failed.
bool TryToMove(const std::string& from, const std::string& to);

enum class LinkResult {
  kDone,
  kNoFile,   // there is no file of that name
  kNoLinks,  // it cannot be linked: the file system has no links, or the like
};
// Gives the file at `path` the second name `second`, which is free.
LinkResult LinkFile(const std::string& path, const std::string& second);

}  // namespace trabex
