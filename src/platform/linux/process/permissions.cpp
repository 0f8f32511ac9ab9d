#include "platform/permissions.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string_view>

#include "platform/sandbox.h"

namespace trabex {

namespace {

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
    return (capabilities >> CAP_NET_BIND_SERVICE & 1) != 0;
  }
  return geteuid() == 0;
}

struct User {
  std::string name;  // empty: the system has none for the number
  uid_t number = 0;
  gid_t group = 0;
};

std::optional<User> FindUser(const std::string& name) {
  const passwd* entry = getpwnam(name.c_str());
  if (entry == nullptr) {
    uid_t number = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    // The greatest number stands for "nobody is meant" in system calls.
    if (error != std::errc() || end != name.data() + name.size() || number == static_cast<uid_t>(-1)) {
      return std::nullopt;
    }
    entry = getpwuid(number);
    if (entry == nullptr) return User{.name = {}, .number = number, .group = number};
  }
  return User{.name = entry->pw_name, .number = entry->pw_uid, .group = entry->pw_gid};
}

// Who this process is between BecomeUserForNow and GiveUpRoot, when it is not root just then; nothing at any other
// time.
std::optional<uid_t> UserForNow() {
  uid_t real = 0;
  uid_t effective = 0;
  uid_t saved = 0;
  if (getresuid(&real, &effective, &saved) != 0 || real != 0 || saved != 0 || effective == 0) {
    return std::nullopt;
  }
  return effective;
}

bool IsOnly(uid_t user) {
  uid_t real = 0;
  uid_t effective = 0;
  uid_t saved = 0;
  return getresuid(&real, &effective, &saved) == 0 && real == user && effective == user && saved == user;
}

// The C library has no function for it.
bool ClearCapabilities() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<__user_cap_data_struct, 2> none{};
  prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
  return syscall(SYS_capset, &header, none.data()) == 0;
}

}  // namespace

FolderState StateOfFolder(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    return errno == EACCES ? FolderState::kNotWritable : FolderState::kMissing;
  }
  if (!S_ISDIR(status.st_mode)) return FolderState::kMissing;
  if (faccessat(AT_FDCWD, path.c_str(), W_OK | X_OK, AT_EACCESS) != 0) return FolderState::kNotWritable;
  return SandboxForbidsWritingIn(path) ? FolderState::kOutside : FolderState::kUsable;
}

bool MayListenOn(std::int32_t port) {
  return port == 0 || port >= FirstFreePort() || MayListenOnAnyPort();
}

BecomeUserResult BecomeUser(const std::string& name) {
  const BecomeUserResult result = BecomeUserForNow(name);
  if (result != BecomeUserResult::kDone) return result;
  return GiveUpRoot() ? BecomeUserResult::kDone : BecomeUserResult::kNotPermitted;
}

BecomeUserResult BecomeUserForNow(const std::string& name) {
  const std::optional<User> user = FindUser(name);
  if (!user) return BecomeUserResult::kUnknownUser;
  if (user->number == geteuid()) return BecomeUserResult::kDone;
  const bool groups_set =
      user->name.empty() ? setgroups(0, nullptr) == 0 : initgroups(user->name.c_str(), user->group) == 0;
  const bool done = groups_set && setresgid(user->group, user->group, user->group) == 0 &&
                    setresuid(0, user->number, 0) == 0;
  return done ? BecomeUserResult::kDone : BecomeUserResult::kNotPermitted;
}

RootRights::RootRights() {
  const std::optional<uid_t> user = UserForNow();
  if (user && seteuid(0) == 0) user_ = *user;
}

RootRights::~RootRights() {
  if (user_ < 0) return;
  const int error = errno;
  // Nothing may go on as root by mistake.
  if (seteuid(static_cast<uid_t>(user_)) != 0) std::abort();
  errno = error;
}

bool GiveUpRoot() {
  const std::optional<uid_t> user = UserForNow();
  if (!user) return true;
  // Whatever the process inherited to keep capabilities by, they are gone.
  prctl(PR_SET_KEEPCAPS, 0, 0, 0, 0);
  return setresuid(*user, *user, *user) == 0 && ClearCapabilities() &&
         prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) == 0 &&
         IsOnly(*user) && seteuid(0) != 0 && setegid(0) != 0;
}

}  // namespace trabex
