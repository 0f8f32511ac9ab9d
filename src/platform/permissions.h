// What this process may do, asked before it is done.
#pragma once

#include <cstdint>
#include <string>

namespace trabex {

enum class FolderState {
  kUsable,       // files can be made in it
  kMissing,      // there is no folder of this name
  kNotWritable,  // this user may not make files in it
  kOutside,      // this user may, but the sandbox (sandbox.h) does not let the process
};
FolderState StateOfFolder(const std::string& path);

// Whether the system lets this process listen on the port, whoever has it now.
bool MayListenOn(std::int32_t port);

enum class BecomeUserResult { kDone, kUnknownUser, kNotPermitted, kNotHere };
// Makes this process one of the user `name`, with that user's groups, for good. Everybody may become who they
// are; another one only root. On Linux the name may be a user's number; one that the system has no name for has
// the group of the same number, and no other.
BecomeUserResult BecomeUser(const std::string& name);

// The same in two steps, for a start that needs root once more: groups and user change at once, so that what is
// made belongs to the user, but RootRights can bring root back until GiveUpRoot. kNotHere: this system has no such
// thing.
BecomeUserResult BecomeUserForNow(const std::string& name);

// Root's rights while it lives, after BecomeUserForNow and before GiveUpRoot; at any other time it does nothing.
class RootRights {
 public:
  RootRights();
  ~RootRights();
  RootRights(const RootRights&) = delete;
  RootRights& operator=(const RootRights&) = delete;

 private:
  std::int64_t user_ = -1;  // who this process is again at the end; -1: nothing has changed
};

// Ends what BecomeUserForNow began: from now on the process is the user's, has no capability, cannot become root
// again, not by a program file either, and neither its memory nor a core dump is for the user to read. Nothing to do
// without BecomeUserForNow. False when the system lets it come back all the same.
bool GiveUpRoot();

}  // namespace trabex
