// The run-time errors of files for the system's own codes.
#pragma once

#include <string>

namespace trabex {

// Raises the error (files.h) for `code`, the errno of the last failed call.
[[noreturn]] void RaiseFileError(int code, std::string source);

// As RaiseFileError, but distinguishes a missing file (53) from a missing folder (76), as errno does not.
[[noreturn]] void RaisePathError(int code, const std::string& path, const std::string& source);

// A write beyond the process's limit for the size of a file then fails (61 "Disk full") instead of ending the
// process. Called before a file is opened for writing; cheap from the second call on.
void SurviveFileSizeLimit();

}  // namespace trabex
