#include "platform/permissions.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string_view>

namespace trabex {

namespace {

constexpr int kCapNetBindService = 10;  // linux/capability.h

// The ports from this one on are free for everybody.
int FirstFreePort() {
  int port = 1024;
  std::ifstream("/proc/sys/net/ipv4/ip_unprivileged_port_start") >> port;
  return port;
}

bool MayListenOnAnyPort() {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    if (word != "CapEff:") continue;
    std::uint64_t capabilities = 0;
    status >> std::hex >> capabilities;
    return (capabilities >> kCapNetBindService & 1) != 0;
  }
  return geteuid() == 0;
}

}  // namespace

FolderState StateOfFolder(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    return errno == EACCES ? FolderState::kNotWritable : FolderState::kMissing;
  }
  if (!S_ISDIR(status.st_mode)) return FolderState::kMissing;
  return faccessat(AT_FDCWD, path.c_str(), W_OK | X_OK, AT_EACCESS) == 0 ? FolderState::kUsable
                                                                         : FolderState::kNotWritable;
}

bool MayListenOn(std::int32_t port) {
  return port == 0 || port >= FirstFreePort() || MayListenOnAnyPort();
}

BecomeUserResult BecomeUser(const std::string& name) {
  const passwd* const user = getpwnam(name.c_str());
  if (user == nullptr) return BecomeUserResult::kUnknownUser;
  if (user->pw_uid == geteuid()) return BecomeUserResult::kDone;
  const bool done =
      initgroups(name.c_str(), user->pw_gid) == 0 && setgid(user->pw_gid) == 0 && setuid(user->pw_uid) == 0;
  return done ? BecomeUserResult::kDone : BecomeUserResult::kNotPermitted;
}

}  // namespace trabex
