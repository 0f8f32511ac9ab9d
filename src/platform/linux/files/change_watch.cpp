// Change notification on inotify.
#include "platform/change_watch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>

#include "platform/files.h"
#include "platform/linux/descriptor.h"

namespace trabex {

namespace {

// Written in place, created or linked, moved into the folder, its date set; and the folder itself removed or
// moved, because then the path names another file.
constexpr std::uint32_t kChanged =
    IN_MODIFY | IN_CLOSE_WRITE | IN_CREATE | IN_MOVED_TO | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;
constexpr std::uint32_t kRemoved = IN_DELETE | IN_MOVED_FROM;

// What a symbolic link at `path` leads to; empty when there is none.
std::string LinkTarget(const std::string& path) {
  std::array<char, PATH_MAX> buffer{};
  const ssize_t length = readlink(path.c_str(), buffer.data(), buffer.size());
  if (length <= 0) return "";
  const std::string target(buffer.data(), static_cast<std::size_t>(length));
  return target.front() == '/' ? target : FolderOf(path) + "/" + target;
}

// The folders in which `path` and, link by link, what it leads to are named.
std::vector<std::string> FoldersOf(std::string path) {
  constexpr int kMaxLinks = 40;  // as the system allows
  std::vector<std::string> folders;
  for (int link = 0; link <= kMaxLinks && !path.empty(); ++link) {
    folders.push_back(FolderOf(path));
    path = LinkTarget(path);
  }
  return folders;
}

class FolderWatch final : public ChangeWatch {
 public:
  FolderWatch(Descriptor inotify, std::string path, std::uint32_t changes)
      : inotify_(std::move(inotify)), path_(std::move(path)), changes_(changes) {}

  // Watches the folders as they are now instead of those from before; false when that of `path_` itself
  // cannot be watched.
  bool WatchFolders() {
    std::vector<int> before;
    before.swap(watches_);
    const std::vector<std::string> folders = FoldersOf(path_);
    bool own_is_watched = false;
    for (std::size_t i = 0; i < folders.size(); ++i) {
      const int watch = inotify_add_watch(inotify_.Get(), folders[i].c_str(), changes_ | IN_ONLYDIR);
      if (watch < 0) continue;
      watches_.push_back(watch);  // that of a folder watched already is the same again
      if (i == 0) own_is_watched = true;
    }
    for (const int watch : before) {
      if (std::find(watches_.begin(), watches_.end(), watch) == watches_.end()) {
        inotify_rm_watch(inotify_.Get(), watch);
      }
    }
    return own_is_watched;
  }

  bool Signalled() override {
    if (signalled_) return true;
    // A folder that was missing when it should be watched again counts as changed once it is there.
    if (folder_is_missing_) {
      folder_is_missing_ = !WatchFolders();
      signalled_ = !folder_is_missing_;
    }
    if (ReadEvents()) signalled_ = true;
    return signalled_;
  }

  void Rearm() override {
    ReadEvents();
    signalled_ = false;
    // Links may lead elsewhere now, and the folder may be another one of the same name.
    folder_is_missing_ = !WatchFolders();
  }

 private:
  // Takes what is waiting; whether a change was among it.
  bool ReadEvents() {
    bool changed = false;
    alignas(inotify_event) std::array<char, 4096> buffer{};
    for (;;) {
      const ssize_t length = read(inotify_.Get(), buffer.data(), buffer.size());
      if (length <= 0) return changed;
      for (ssize_t at = 0; at < length;) {
        inotify_event event{};
        std::memcpy(&event, buffer.data() + at, sizeof event);
        // Other events are about watches, or say that events were lost; those come after many that count.
        if ((event.mask & (changes_ | IN_UNMOUNT)) != 0) changed = true;
        at += static_cast<ssize_t>(sizeof event + event.len);
      }
    }
  }

  Descriptor inotify_;
  std::string path_;
  std::uint32_t changes_;
  std::vector<int> watches_;
  bool signalled_ = false;
  bool folder_is_missing_ = false;
};

}  // namespace

std::unique_ptr<ChangeWatch> WatchFolderOf(const std::string& path, WatchedChanges changes) {
  const std::uint32_t mask = changes == WatchedChanges::kWrites ? kChanged : kChanged | kRemoved;
  Descriptor inotify(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!inotify) return nullptr;
  auto watch = std::make_unique<FolderWatch>(std::move(inotify), path, mask);
  if (!watch->WatchFolders()) return nullptr;
  return watch;
}

}  // namespace trabex
