// Which files the settings mean. Both "/" and "\" separate; these functions never touch the disk.
#pragma once

#include <string>
#include <string_view>

namespace trabex::mCommon {

// `base` and `name` with one separator between them: one of two is dropped, a missing one is the platform's.
std::string JoinPath(std::string_view base, std::string_view name);

// The initialization file's path. `given` is that of the command line, as typed and without quotes, or empty:
// then it is the program's name with ".ini" in the program's directory.
//
//   absolute: C:\x  \\x, on Linux /x    stays as it is (IsAbsolutePath)
//   begins with ./  ../  .\  ..\      stays as it is
//   any other                         lies under the program's directory
std::string ResolveIniPath(std::string_view given, std::string_view program_directory,
                           std::string_view program_name);

// The path of a file by its setting: empty for none, otherwise as the initialization file's above.
std::string ResolveFilePath(std::string_view setting, std::string_view program_directory);

// The greylisting database's path by the setting `Database`: unchanged when it holds a separator,
// otherwise in the folder GreyListing under the program's directory; empty means GreyListing.gldb there.
std::string ResolveDatabasePath(std::string_view setting, std::string_view program_directory);

}  // namespace trabex::mCommon
