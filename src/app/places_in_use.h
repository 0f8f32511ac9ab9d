// Which files and folders the running program uses.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "config/configuration.h"
#include "platform/sandbox.h"

namespace trabex {

struct Program;

struct WrittenFolder {
  std::string_view key;  // of the setting that names it
  std::string path;      // a native one
  bool in_use = false;   // with these settings; with others it may be
};

// Those of the log, the greylisting database and the log in JSON.
std::vector<WrittenFolder> WrittenFolders(const Configuration& configuration);

// Makes the folder of the greylisting database if it is missing. Otherwise the first save makes it, but a process that is
// closed in makes no folders. What goes wrong is logged.
void MakeDatabaseFolderNow(Program& program);

// What the program has to reach while it runs, reloads included: the initialization file, the files that it names, and
// the folders in which it writes.
SandboxPaths PlacesInUse(const Program& program);

}  // namespace trabex
