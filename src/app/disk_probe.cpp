#include "app/disk_probe.h"

#include <algorithm>
#include <cassert>
#include <exception>
#include <optional>
#include <string_view>

#include "base/text.h"
#include "platform/disk.h"
#include "platform/files.h"

namespace trabex {

namespace {

// Reads the files; what they hold is for nobody.
std::string ReadAll(const std::string& files, const TaskContent& /*content*/) {
  for (std::size_t begin = 0; begin < files.size();) {
    const std::size_t end = files.find('\0', begin);
    try {
      const std::string file = files.substr(begin, end - begin);
      // To have asked is enough where it is a folder.
      if (!IsFolder(file)) static_cast<void>(ReadWholeFile(file, "mFiles.ReadWholeFile"));
    } catch (const std::exception&) {
      // That is an answer too.
    }
    begin = end + 1;
  }
  return {};
}

// With a zero behind each.
std::string Joined(const std::vector<std::string>& files) {
  std::string joined;
  for (const std::string& file : files) joined.append(file).append(1, '\0');
  return joined;
}

}  // namespace

DiskProbe::DiskProbe(EventLoop& loop, Log& log)
    : log_(log), silence_(loop, kSilence, [this] { Silent(); }), task_(loop) {}

void DiskProbe::Read(const std::vector<std::string>& files, std::function<void()> then) {
  Begin(files, false, [then = std::move(then)](const std::vector<std::string>& /*unanswered*/) { then(); });
}

void DiskProbe::ReadInTime(const std::vector<std::string>& files,
                           std::function<void(std::vector<std::string> unanswered)> then) {
  Begin(files, true, std::move(then));
}

void DiskProbe::Begin(const std::vector<std::string>& files, bool has_bound,
                      std::function<void(std::vector<std::string> unanswered)> then) {
  assert(!Running());
  const std::vector<std::optional<std::string>> mounts = DisksThatMayHang(files);
  for (std::size_t i = 0; i < files.size(); ++i) {
    if (!mounts[i]) continue;
    auto disk =
        std::find_if(disks_.begin(), disks_.end(), [&](const Disk& one) { return one.mount == *mounts[i]; });
    if (disk == disks_.end()) disk = disks_.insert(disk, {*mounts[i], {}});
    disk->files.push_back(files[i]);
  }
  has_bound_ = has_bound;
  then_ = std::move(then);
  Next();
}

void DiskProbe::Next() {
  while (!disks_.empty()) {
    silence_.Enable();
    if (task_.Start({}, ReadAll, Joined(disks_.back().files), [this](const TaskResult&) { Answered(); }))
      return;
    // Better a held-up loop than none of what was asked for.
    silence_.Disable();
    disks_.pop_back();
  }
  std::exchange(then_, nullptr)(std::exchange(unanswered_, {}));
}

void DiskProbe::Answered() {
  silence_.Disable();
  if (std::exchange(is_silent_, false))
    log_.LogLine("The disk at " + Quoted(disks_.back().mount) + " answers again.");
  disks_.pop_back();
  Next();
}

void DiskProbe::Silent() {
  silence_.Disable();
  if (has_bound_) return GiveUp();
  is_silent_ = true;
  log_.LogProblem("The disk at " + Quoted(disks_.back().mount) +
                  " does not answer. Files there are read when it does.");
}

void DiskProbe::GiveUp() {
  task_.Abandon();
  log_.LogProblem("The disk at " + Quoted(disks_.back().mount) +
                  " does not answer. What lies there is not looked at.");
  std::vector<std::string>& files = disks_.back().files;
  unanswered_.insert(unanswered_.end(), files.begin(), files.end());
  disks_.pop_back();
  Next();
}

void DiskProbe::Cancel() {
  task_.Abandon();
  silence_.Disable();
  is_silent_ = false;
  disks_.clear();
  unanswered_.clear();
  then_ = nullptr;
}

}  // namespace trabex
