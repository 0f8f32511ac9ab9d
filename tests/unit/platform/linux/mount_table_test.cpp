#include "platform/linux/files/mount_table.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/disk.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

namespace fs = std::filesystem;

std::string Line(const std::string& place, const std::string& kind) {
  return "36 35 98:0 /inside " + place + " rw,noatime master:1 - " + kind + " source rw\n";
}

TEST(MountTable, KnowsLocalFileSystems) {
  const TempFolder folder;
  for (const char* const kind : {"ext4", "xfs", "btrfs", "tmpfs", "overlay", "zfs"}) {
    const MountTable mounts(Line("/", "ext4") + Line(folder.Path(), kind));
    EXPECT_FALSE(mounts.AnyMayHang()) << kind;
    EXPECT_EQ(mounts.ThatMayHang(folder / "file"), std::nullopt) << kind;
  }
  for (const char* const kind : {"nfs", "nfs4", "cifs", "smb3", "9p", "ceph", "fuse", "fuse.sshfs", "fuseblk",
                                 "autofs", "virtiofs", "never heard of"}) {
    const MountTable mounts(Line("/", "ext4") + Line(folder.Path(), kind));
    EXPECT_TRUE(mounts.AnyMayHang()) << kind;
    EXPECT_EQ(mounts.ThatMayHang(folder / "file"), folder.Path()) << kind;
    EXPECT_EQ(mounts.ThatMayHang("/etc/file"), std::nullopt) << kind;
  }
}

TEST(MountTable, FindsTheFirstOnTheWay) {
  const TempFolder folder;
  const std::string root = folder.Path();
  fs::create_directories(folder / "far/local");
  fs::create_directories(folder / "with blank");
  fs::create_directories(folder / "links");
  fs::create_symlink("../far/x", folder / "links/relative");
  fs::create_symlink(folder / "links/relative", folder / "links/absolute");
  fs::create_symlink("loop", folder / "links/loop");
  fs::create_symlink("..", folder / "links/up");
  const MountTable mounts(Line("/", "ext4") + Line(root + "/far", "nfs") +
                          Line(root + "/far/local", "tmpfs") + Line(root + "/with\\040blank", "cifs") +
                          Line(root + "/twice", "nfs") + Line(root + "/twice", "ext4") +
                          "no line of the table\n");
  const struct {
    const char* path;
    const char* found;  // nullptr: none
  } rows[] = {
      {"far", "/far"},
      {"far/a/b", "/far"},
      {"./far/../far/a", "/far"},
      {"farther", nullptr},
      {"far/local/file", "/far"},  // nobody gets there but by it
      {"with blank/file", "/with blank"},
      {"twice/file", nullptr},
      {"links/relative", "/far"},
      {"links/absolute", "/far"},
      {"links/up/far", "/far"},
      {"links/../links/none/file", nullptr},
      {"links/loop", nullptr},
  };
  for (const auto& row : rows) {
    const std::optional<std::string> found = mounts.ThatMayHang(root + "/" + row.path);
    EXPECT_EQ(found, row.found == nullptr ? std::nullopt : std::optional(root + row.found)) << row.path;
  }
}

TEST(MountTable, CountsTheRoot) {
  const MountTable mounts(Line("/", "nfs") + Line("/tmp", "tmpfs"));
  EXPECT_EQ(mounts.ThatMayHang("/tmp/file"), "/");
}

TEST(MountTable, WithoutALineKnowsNothing) {
  for (const char* const text : {"", "\n", "no line of the table\n"}) {
    const MountTable mounts(text);
    EXPECT_TRUE(mounts.AnyMayHang());
    EXPECT_EQ(mounts.ThatMayHang("/tmp/file"), "/");
  }
}

TEST(Disk, ThatOfTheSystemIsKnown) {
  // Whatever this machine has: the table can be read, and a kernel's own file system is no disk.
  EXPECT_EQ(DiskThatMayHang("/proc/self/status"), std::nullopt);
  EXPECT_EQ(DisksThatMayHang({"/proc/self/status", "/proc/self/stat"}),
            std::vector<std::optional<std::string>>(2));
}

}  // namespace
}  // namespace trabex
