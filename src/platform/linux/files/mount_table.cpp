#include "platform/linux/files/mount_table.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>

#include "platform/files.h"

namespace trabex {

namespace {

// As many links as the system follows.
constexpr int kMaxLinks = 40;

// As disk.h says.
constexpr auto kLocal = std::to_array<std::string_view>(
    {"aufs",       "bcachefs",  "binfmt_misc", "bpf",       "btrfs",
     "cgroup",     "cgroup2",   "configfs",    "debugfs",   "devpts",
     "devtmpfs",   "ecryptfs",  "efivarfs",    "erofs",     "exfat",
     "ext2",       "ext3",      "ext4",        "f2fs",      "fuse.fuse-overlayfs",
     "fusectl",    "hfs",       "hfsplus",     "hugetlbfs", "iso9660",
     "jffs2",      "jfs",       "minix",       "mqueue",    "msdos",
     "nilfs2",     "nsfs",      "ntfs3",       "overlay",   "overlayfs",
     "proc",       "pstore",    "ramfs",       "reiserfs",  "rootfs",
     "securityfs", "selinuxfs", "squashfs",    "sysfs",     "tmpfs",
     "tracefs",    "ubifs",     "udf",         "vfat",      "xfs",
     "zfs"});

std::string_view TakeWord(std::string_view& line) {
  const std::size_t end = std::min(line.find(' '), line.size());
  const std::string_view word = line.substr(0, end);
  line.remove_prefix(std::min(end + 1, line.size()));
  return word;
}

// A blank and its like are "\040": a backslash and three octal digits.
std::string Unescaped(std::string_view word) {
  std::string text;
  const auto is_octal = [](char c) { return c >= '0' && c <= '7'; };
  for (std::size_t i = 0; i < word.size(); ++i) {
    if (word[i] == '\\' && i + 3 < word.size() && is_octal(word[i + 1]) && is_octal(word[i + 2]) &&
        is_octal(word[i + 3])) {
      text += static_cast<char>((word[i + 1] - '0') * 64 + (word[i + 2] - '0') * 8 + (word[i + 3] - '0'));
      i += 3;
    } else {
      text += word[i];
    }
  }
  return text;
}

std::string LinkTarget(const std::string& link) {
  std::array<char, PATH_MAX> target{};
  const ssize_t length = readlink(link.c_str(), target.data(), target.size());
  return length <= 0 ? std::string() : std::string(target.data(), static_cast<std::size_t>(length));
}

// The next name of `path`, which loses it; empty at the end.
std::string TakeName(std::string& path) {
  const std::size_t begin = std::min(path.find_first_not_of(kPathSeparator), path.size());
  const std::size_t end = std::min(path.find(kPathSeparator, begin), path.size());
  std::string name = path.substr(begin, end - begin);
  path.erase(0, end);
  return name;
}

}  // namespace

MountTable::MountTable(std::string_view text) {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    constexpr int kWordsBefore = 4;
    for (int i = 0; i < kWordsBefore; ++i) TakeWord(line);
    std::string place = Unescaped(TakeWord(line));
    const std::size_t separator = line.find(" - ");
    if (!place.starts_with(kPathSeparator) || separator == std::string_view::npos) continue;
    line.remove_prefix(separator + 3);
    if (place == "/") place.clear();
    const bool is_local = std::find(kLocal.begin(), kLocal.end(), TakeWord(line)) != kLocal.end();
    may_hang_.insert_or_assign(std::move(place), !is_local);
  }
  if (may_hang_.empty()) may_hang_.emplace("", true);
}

bool MountTable::AnyMayHang() const {
  return std::any_of(may_hang_.begin(), may_hang_.end(), [](const auto& mount) { return mount.second; });
}

std::optional<std::string> MountTable::ThatMayHang(const std::string& path) const {
  if (!AnyMayHang()) return std::nullopt;
  const auto may_hang = [this](const std::string& place) {
    const auto mount = may_hang_.find(place);
    return mount != may_hang_.end() && mount->second;
  };
  if (may_hang("")) return "/";
  std::string rest = AbsolutePath(path);
  std::string way;  // without links, and all of it is local
  int links = 0;
  for (std::string name = TakeName(rest); !name.empty(); name = TakeName(rest)) {
    if (name == ".") continue;
    if (name == "..") {
      way.resize(std::min(way.rfind(kPathSeparator), way.size()));
      continue;
    }
    const std::string next = way + kPathSeparator + name;
    if (may_hang(next)) return next;
    const std::string target = LinkTarget(next);
    if (target.empty()) {
      way = next;
    } else if (++links > kMaxLinks) {
      return std::nullopt;  // nobody gets there
    } else {
      if (target.front() == kPathSeparator) way.clear();
      rest = target + kPathSeparator + rest;
    }
  }
  return std::nullopt;
}

}  // namespace trabex
