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

}  // namespace

DiskProbe::DiskProbe(EventLoop& loop, Log& log)
    : log_(log),
      silence_(loop, kSilence,
               [this] {
                 silence_.Disable();
                 is_silent_ = true;
                 log_.LogProblem("The disk at " + Quoted(disks_.back().mount) +
                                 " does not answer. Files there are read when it does.");
               }),
      task_(loop) {}

void DiskProbe::Read(const std::vector<std::string>& files, std::function<void()> then) {
  assert(!Running());
  for (const std::string& file : files) {
    const std::optional<std::string> mount = DiskThatMayHang(file);
    if (!mount) continue;
    auto disk =
        std::find_if(disks_.begin(), disks_.end(), [&](const Disk& one) { return one.mount == *mount; });
    if (disk == disks_.end()) disk = disks_.insert(disk, {*mount, {}});
    disk->files.append(file).append(1, '\0');
  }
  then_ = std::move(then);
  Next();
}

void DiskProbe::Next() {
  while (!disks_.empty()) {
    silence_.Enable();
    if (task_.Start({}, ReadAll, disks_.back().files, [this](const TaskResult&) { Answered(); })) return;
    // Better a held-up loop than none of what was asked for.
    silence_.Disable();
    disks_.pop_back();
  }
  std::exchange(then_, nullptr)();
}

void DiskProbe::Answered() {
  silence_.Disable();
  if (std::exchange(is_silent_, false))
    log_.LogLine("The disk at " + Quoted(disks_.back().mount) + " answers again.");
  disks_.pop_back();
  Next();
}

void DiskProbe::Cancel() {
  task_.Cancel();
  silence_.Disable();
  is_silent_ = false;
  disks_.clear();
  then_ = nullptr;
}

}  // namespace trabex
