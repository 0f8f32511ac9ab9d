// What this process can reach of the system, cut down to what it needs, so that whoever got hold of it gains little. On
// Linux: the folders by Landlock, the system calls by a filter, and no rights from program files. Nothing of it can be
// taken back; processes that this one forks have it too.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace trabex {

// Native paths. What is not there is left out.
struct SandboxPaths {
  // Files that are read again and again. Since a file is replaced by renaming another one over it, everything in its
  // folder can be read, and in that of each link on the way to it.
  std::vector<std::string> read_files;
  // Files, and folders with all that is below, that can be read.
  std::vector<std::string> read_places;
  // Folders in which, and below, files can be read, made, written, renamed and removed. No folders can be made.
  std::vector<std::string> write_folders;
  // Whether others may replace these folders while the process runs. A rule is about a folder itself, not about its name,
  // so this takes the right to write in the folder above as well, and to make folders there. It is given only where
  // file permissions leave nothing to gain by it: not to root, and not where that folder holds what decides about the
  // program or its user, and he may change it.
  bool folders_are_replaced = false;
  // Whether processes that this one has started before have to be ended: then it can send signals as ever.
  bool has_children = false;
};

// What of the sandbox this system does not have; nothing: it has all of it.
std::optional<std::string> WhyNoSandbox();

// Encloses this process, as far as the system can do it, with what the system's libraries read beside `paths`. What
// could not be done; nothing: all was.
std::optional<std::string> EncloseProcess(const SandboxPaths& paths);

// What an error says then.
inline constexpr const char* kOutsideSandbox = "Outside of the folders that Sandbox allows";

// Whether the permissions of `path` allow it to be read, but the sandbox does not. False outside of one, and for what is
// not there.
bool SandboxForbidsReading(const std::string& path);
// The same of making files in the folder `path`.
bool SandboxForbidsWritingIn(const std::string& path);

}  // namespace trabex
