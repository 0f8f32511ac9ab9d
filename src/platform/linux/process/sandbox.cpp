#include "platform/sandbox.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <string_view>
#include <utility>

#include "platform/files.h"
#include "platform/linux/descriptor.h"
#include "platform/linux/process/folder_beside.h"
#include "platform/linux/process/landlock.h"
#include "platform/linux/process/system_call_filter.h"

namespace trabex {

namespace {

// As many links as the system follows.
constexpr int kMaxLinks = 40;

// Where the system's libraries and the resolver read: time zones, descriptions of terminals, certificate authorities,
// names and addresses.
constexpr auto kSystemPlaces = std::to_array<const char*>(
    {"/usr", "/lib", "/lib64", "/etc/resolv.conf", "/etc/hosts", "/etc/host.conf", "/etc/nsswitch.conf",
     "/etc/services", "/etc/gai.conf", "/etc/localtime", "/etc/passwd", "/etc/group", "/etc/terminfo",
     "/etc/ld.so.cache", "/proc/self", "/proc/sys/net", "/dev/urandom", "/dev/random"});
// The resolver's files, which other programs replace.
constexpr auto kReplacedFiles = std::to_array<const char*>({"/etc/resolv.conf", "/etc/hosts"});
constexpr auto kDevices = std::to_array<const char*>({"/dev/null", "/dev/tty"});

// Like the user and the rights of the process itself, this cannot be taken back.
bool is_enclosed = false;

std::string TargetOf(const std::string& link) {
  std::array<char, PATH_MAX> target{};
  const ssize_t length = readlink(link.c_str(), target.data(), target.size());
  if (length <= 0) return {};
  std::string found(target.data(), static_cast<std::size_t>(length));
  return found.front() == kPathSeparator ? found : FolderOf(link) + kPathSeparator + found;
}

// The folders of a file and of all links on the way to it.
std::vector<std::string> FoldersOnTheWayTo(std::string path) {
  std::vector<std::string> folders;
  for (int i = 0; i < kMaxLinks && !path.empty(); ++i) {
    folders.push_back(FolderOf(path));
    path = TargetOf(path);
  }
  return folders;
}

bool IsRootFolder(const std::string& path) {
  std::array<char, PATH_MAX> resolved{};
  return realpath(path.c_str(), resolved.data()) != nullptr && std::string_view(resolved.data()) == "/";
}

void AllowFile(LandlockRules& rules, const std::string& path) {
  rules.AllowReading(path);
  for (const std::string& folder : FoldersOnTheWayTo(path)) {
    if (!IsRootFolder(folder)) rules.AllowReading(folder);
  }
}

// Those that are the same everywhere, and those that the environment names.
std::vector<std::string> SystemPlaces() {
  std::vector<std::string> places(kSystemPlaces.begin(), kSystemPlaces.end());
  for (const char* const name : {"TERMINFO", "SSL_CERT_FILE", "SSL_CERT_DIR", "OPENSSL_CONF"}) {
    if (const char* const place = std::getenv(name)) places.emplace_back(place);
  }
  return places;
}

void AllowSystem(LandlockRules& rules) {
  for (const std::string& place : SystemPlaces()) rules.AllowReading(place);
  for (const char* const file : kReplacedFiles) {
    for (const std::string& folder : FoldersOnTheWayTo(file)) {
      // In /etc there are files that only root may read. Who is not root could not anyway.
      if (folder != "/etc" || geteuid() != 0) rules.AllowReading(folder);
    }
  }
  for (const char* const device : kDevices) rules.AllowUsing(device);
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) rules.AllowUsing(stream);
}

// The folders that hold a link on the way to `path`, and the one that holds what is at its end: whoever may write in one
// of them can put something else at the path.
std::vector<std::string> FoldersThatDecide(const std::string& path) {
  std::vector<std::string> folders;
  std::string rest = AbsolutePath(path);
  std::string way;  // as far as it has been followed, without links
  for (int links = 0; links < kMaxLinks;) {
    const std::size_t begin = rest.find_first_not_of(kPathSeparator);
    if (begin == std::string::npos) break;
    const std::size_t end = std::min(rest.find(kPathSeparator, begin), rest.size());
    const std::string next = way + kPathSeparator + rest.substr(begin, end - begin);
    rest.erase(0, end);
    const std::string target = TargetOf(next);
    if (!target.empty() || rest.find_first_not_of(kPathSeparator) == std::string::npos) {
      folders.push_back(way.empty() ? std::string(1, kPathSeparator) : way);
    }
    if (target.empty()) {
      way = next;
    } else {
      ++links;
      rest = target + rest;
      way.clear();
    }
  }
  return folders;
}

// All that the sandbox lets be read, apart from what belongs to the kernel.
DecidingPlaces PlacesThatDecide(const SandboxPaths& paths) {
  DecidingPlaces deciding{.places = paths.read_files, .trees = paths.read_places};
  for (std::string& place : SystemPlaces()) deciding.trees.push_back(std::move(place));
  std::vector<std::string> all = deciding.trees;
  all.insert(all.end(), paths.read_files.begin(), paths.read_files.end());
  for (const std::string& place : all) {
    for (std::string& folder : FoldersThatDecide(place)) deciding.places.push_back(std::move(folder));
  }
  return deciding;
}

void AllowReplacedFolders(LandlockRules& rules, const SandboxPaths& paths) {
  const DecidingPlaces deciding = PlacesThatDecide(paths);
  for (const std::string& folder : paths.write_folders) {
    if (MayWriteBeside(folder, deciding, paths.write_folders)) rules.AllowMakingFolders(ParentOf(folder));
  }
}

bool RestrictFiles(const SandboxPaths& paths) {
  const char* const manager = std::getenv("NOTIFY_SOCKET");
  LandlockRules rules(
      {.abstract_sockets = manager != nullptr && *manager == '@', .signals = paths.has_children});
  if (!rules.Valid()) return false;
  AllowSystem(rules);
  for (const std::string& file : paths.read_files) AllowFile(rules, file);
  for (const std::string& place : paths.read_places) rules.AllowReading(place);
  for (const std::string& folder : paths.write_folders) rules.AllowWriting(folder);
  if (paths.folders_are_replaced) AllowReplacedFolders(rules, paths);
  return rules.Restrict();
}

// A sanitizer makes calls of its own, at the end even as a debugger of the process.
constexpr bool HasSanitizer() {
#if defined(__SANITIZE_ADDRESS__)
  return true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(memory_sanitizer) || __has_feature(thread_sanitizer)
  return true;
#else
  return false;
#endif
#else
  return false;
#endif
}

}  // namespace

std::optional<std::string> WhyNoSandbox() {
  if (HasSanitizer()) return "the program is built with a sanitizer";
  if (LandlockVersion() < kMinLandlockVersion) return "the kernel has no Landlock of version 2 or later";
  if (!HasSystemCallFilter()) return "there is no filter of system calls for this kernel and processor";
  return std::nullopt;
}

std::optional<std::string> EncloseProcess(const SandboxPaths& paths) {
  std::optional<std::string> why_not = WhyNoSandbox();
  if (HasSanitizer()) return why_not;
  tzset();  // reads its files once
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return "the kernel refuses \"no new privileges\"";
  if (RestrictFiles(paths)) {
    is_enclosed = true;
  } else if (!why_not) {
    why_not = "the kernel refuses the rules of Landlock";
  }
  // Last, since it takes away the calls that are needed above.
  if (!FilterSystemCalls() && !why_not) why_not = "the kernel refuses the filter of system calls";
  return why_not;
}

// Permissions are checked by another call, which Landlock does not look at.
bool SandboxForbidsReading(const std::string& path) {
  if (!is_enclosed || faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) != 0) return false;
  const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  return !file && errno == EACCES;
}

bool SandboxForbidsWritingIn(const std::string& path) {
  if (!is_enclosed || faccessat(AT_FDCWD, path.c_str(), W_OK | X_OK, AT_EACCESS) != 0) return false;
  const Descriptor file(open(path.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
  return !file && errno == EACCES;
}

}  // namespace trabex
