// Errors of calls on a path.
#pragma once

#include <string>

namespace trabex {

// As RaiseFileError (files.h), but tells a missing file (53) from a missing folder (76), which the system's
// own code does not.
[[noreturn]] void RaisePathError(int code, const std::string& path, const std::string& source);

// A write beyond the process's limit for the size of a file then fails (61 "Disk full") instead of ending the
// process. Called before a file is opened for writing; cheap from the second call on.
void SurviveFileSizeLimit();

}  // namespace trabex
