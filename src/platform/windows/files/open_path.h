// Asking about what a path leads to, be it a file or a folder.
#pragma once

#include <string>

#include "platform/windows/files/disk_file.h"

namespace trabex {

// Opens the file or folder behind all links at `path` with `access`.
OpenedFile OpenPath(const std::string& path, DWORD access);

// Where the file or folder at `path` lies, behind all links; empty when that cannot be had.
std::string FinalPath(const std::string& path);

}  // namespace trabex
