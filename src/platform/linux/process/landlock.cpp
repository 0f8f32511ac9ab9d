#include "platform/linux/process/landlock.h"

#include <fcntl.h>
#include <linux/landlock.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

namespace trabex {

namespace {

// Those that the header of an older kernel does not have.
constexpr std::uint64_t kTruncate = 1ULL << 14;
constexpr std::uint64_t kDeviceIoctl = 1ULL << 15;
constexpr std::uint64_t kScopeAbstractSockets = 1ULL << 0;
constexpr std::uint64_t kScopeSignals = 1ULL << 1;

// As kernels from version 6 on have it; older ones take its beginning.
struct RulesetAttributes {
  std::uint64_t files = 0;
  std::uint64_t network = 0;
  std::uint64_t scopes = 0;
};

constexpr std::uint64_t kReadAccess = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR;
constexpr std::uint64_t kWriteAccess = kReadAccess | LANDLOCK_ACCESS_FS_WRITE_FILE |
                                       LANDLOCK_ACCESS_FS_MAKE_REG | LANDLOCK_ACCESS_FS_REMOVE_FILE |
                                       LANDLOCK_ACCESS_FS_REFER | kTruncate;
constexpr std::uint64_t kUseAccess =
    LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_WRITE_FILE | kTruncate | kDeviceIoctl;
// What can be allowed for something that is no folder.
constexpr std::uint64_t kFileAccess = LANDLOCK_ACCESS_FS_EXECUTE | kUseAccess;

std::uint64_t KnownAccess(int version) {
  std::uint64_t known = LANDLOCK_ACCESS_FS_REFER - 1;
  if (version >= 2) known |= LANDLOCK_ACCESS_FS_REFER;
  if (version >= 3) known |= kTruncate;
  if (version >= 5) known |= kDeviceIoctl;
  return known;
}

}  // namespace

int LandlockVersion() {
  const long version = syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
  return static_cast<int>(std::max(version, 0L));
}

LandlockRules::LandlockRules(Others others) {
  const int version = LandlockVersion();
  if (version == 0) return;
  known_ = KnownAccess(version);
  // There are no rules for ports: the server's and those of its next settings can be any, and DNS is UDP.
  RulesetAttributes attributes{.files = known_};
  std::size_t size = sizeof attributes.files;
  if (version >= 6) {
    attributes.scopes =
        (others.signals ? 0 : kScopeSignals) | (others.abstract_sockets ? 0 : kScopeAbstractSockets);
    size = sizeof attributes;
  }
  rules_ = Descriptor(static_cast<int>(syscall(SYS_landlock_create_ruleset, &attributes, size, 0)));
}

void LandlockRules::AllowReading(const std::string& path) {
  Allow(path, kReadAccess);
}

void LandlockRules::AllowWriting(const std::string& folder) {
  Allow(folder, kWriteAccess);
}

void LandlockRules::AllowMakingFolders(const std::string& folder) {
  Allow(folder, kWriteAccess | LANDLOCK_ACCESS_FS_MAKE_DIR);
}

void LandlockRules::AllowUsing(const std::string& file) {
  Allow(file, kUseAccess);
}

void LandlockRules::AllowUsing(int descriptor) {
  Allow(descriptor, kUseAccess);
}

bool LandlockRules::Restrict() const {
  return Valid() && syscall(SYS_landlock_restrict_self, rules_.Get(), 0) == 0;
}

void LandlockRules::Allow(const std::string& path, std::uint64_t access) {
  const Descriptor place(open(path.c_str(), O_PATH | O_CLOEXEC));
  if (place) Allow(place.Get(), access);
}

// What cannot be ruled, such as a pipe, is open to everybody who has it.
void LandlockRules::Allow(int descriptor, std::uint64_t access) {
  struct stat status {};
  if (!Valid() || fstat(descriptor, &status) != 0) return;
  access &= known_;
  if (!S_ISDIR(status.st_mode)) access &= kFileAccess;
  const landlock_path_beneath_attr rule{.allowed_access = access, .parent_fd = descriptor};
  syscall(SYS_landlock_add_rule, rules_.Get(), LANDLOCK_RULE_PATH_BENEATH, &rule, 0);
}

}  // namespace trabex
