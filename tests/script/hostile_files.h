// The files of tests/system/hostile: each a trick that a hostile client may try.
#pragma once

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "script/script.h"

namespace trabex::script {

struct HostileFile {
  std::string name;  // its path in the folder, without the ending
  Script script;     // sendings that stand together are one; comment, after, direct and steps are there
};

// All files *.session below `folder`, in the order of their names. Raises ScriptError for one that cannot be
// read or lacks something, and when there is none.
std::vector<HostileFile> ReadHostileFiles(const std::filesystem::path& folder);

// The lines of the ordinary dialogue before the trick, each with the code that answers it; the first one is
// the greeting, before which nothing is sent. None for "nothing".
std::vector<std::pair<std::string, std::string>> OpeningOf(const HostileFile& file);

}  // namespace trabex::script
