// Change notification of folders.
#include "platform/change_watch.h"

#include <utility>

#include "platform/files.h"
#include "platform/native_file.h"
#include "platform/windows/files/open_path.h"
#include "platform/windows/files/system_path.h"
#include "platform/windows/win.h"

namespace trabex {

namespace {

// A file that another one is moved over is told as a change of names, as a removal is: the system does not tell them
// apart. A date that was set by itself is told as a change of attributes by some systems of files.
constexpr DWORD kChanges = FILE_NOTIFY_CHANGE_LAST_WRITE | FILE_NOTIFY_CHANGE_SIZE |
                           FILE_NOTIFY_CHANGE_ATTRIBUTES | FILE_NOTIFY_CHANGE_CREATION |
                           FILE_NOTIFY_CHANGE_FILE_NAME;

// One notification.
class Notification {
 public:
  explicit Notification(std::string folder) : folder_(std::move(folder)) {
    const SystemPath place(folder_);
    if (place.Code() != 0) return;
    handle_ = FindFirstChangeNotificationW(place.Get(), FALSE, kChanges);
  }
  ~Notification() {
    if (IsActive()) FindCloseChangeNotification(handle_);
  }
  Notification(Notification&& other) noexcept
      : folder_(std::move(other.folder_)), handle_(std::exchange(other.handle_, INVALID_HANDLE_VALUE)) {}
  Notification& operator=(Notification&& other) noexcept {
    std::swap(folder_, other.folder_);
    std::swap(handle_, other.handle_);
    return *this;
  }

  const std::string& Folder() const { return folder_; }
  bool IsActive() const { return handle_ != INVALID_HANDLE_VALUE && handle_ != nullptr; }
  bool Signalled() const { return IsActive() && WaitForSingleObject(handle_, 0) == WAIT_OBJECT_0; }
  // Waits for the next change; false when the folder has gone. The system keeps what happens while nobody waits and tells
  // it at once, so all that has happened so far is taken here.
  bool Rearm() {
    constexpr int kMaxKept = 1000;
    for (int i = 0; i < kMaxKept && Signalled(); ++i) {
      if (FindNextChangeNotification(handle_) == 0) return false;
    }
    return IsActive();
  }

 private:
  std::string folder_;
  HANDLE handle_ = INVALID_HANDLE_VALUE;
};

class FolderWatch final : public ChangeWatch {
 public:
  explicit FolderWatch(std::string path)
      : path_(std::move(path)), own_(FolderOf(path_)), identity_(FindFileIdentity(own_.Folder())) {
    WatchTarget();
  }

  bool IsActive() const { return own_.IsActive(); }

  bool Signalled() override {
    if (signalled_) return true;
    // A folder that was missing when it should be watched again counts as changed once it is there.
    if (!own_.IsActive()) {
      WatchAnew();
      signalled_ = own_.IsActive();
    }
    if (own_.Signalled() || target_.Signalled()) signalled_ = true;
    return signalled_;
  }

  void Rearm() override {
    signalled_ = false;
    // The folder may be another one of the same name.
    const auto folder_now = FindFileIdentity(own_.Folder());
    const bool same = folder_now && identity_ && folder_now->device == identity_->device &&
                      folder_now->number == identity_->number;
    if (!same || !own_.Rearm()) {
      WatchAnew();
    } else if (target_.Folder() != TargetFolder() || (target_.IsActive() && !target_.Rearm())) {
      WatchTarget();
    }
  }

 private:
  // Where the file lies that a link at `path_` leads to; empty when that is the folder of `path_` itself.
  std::string TargetFolder() const {
    const std::string target = FinalPath(path_);
    if (target.empty()) return "";
    const std::string folder = FolderOf(target);
    return folder == FinalPath(own_.Folder()) ? "" : folder;
  }

  void WatchTarget() { target_ = Notification(TargetFolder()); }

  void WatchAnew() {
    own_ = Notification(FolderOf(path_));
    identity_ = FindFileIdentity(own_.Folder());
    WatchTarget();
  }

  std::string path_;
  Notification own_;
  std::optional<FileIdentity> identity_;  // of the folder that `own_` watches
  Notification target_{std::string()};
  bool signalled_ = false;
};

}  // namespace

std::unique_ptr<ChangeWatch> WatchFolderOf(const std::string& path, WatchedChanges /*changes*/) {
  if (SystemPath(path).Code() != 0) return nullptr;
  auto watch = std::make_unique<FolderWatch>(path);
  if (!watch->IsActive()) return nullptr;
  return watch;
}

}  // namespace trabex
