// What this process may do, asked before it is done.
#pragma once

#include <cstdint>
#include <string>

namespace trabex {

enum class FolderState {
  kUsable,       // files can be made in it
  kMissing,      // there is no folder of this name
  kNotWritable,  // this user may not make files in it
};
FolderState StateOfFolder(const std::string& path);

// Whether the system lets this process listen on the port, whoever has it now.
bool MayListenOn(std::int32_t port);

enum class BecomeUserResult { kDone, kUnknownUser, kNotPermitted };
// Makes this process one of the user `name`, with that user's groups, for good. Everybody may become who they
// are; another one only root.
BecomeUserResult BecomeUser(const std::string& name);

}  // namespace trabex
