// Disks that may keep whoever touches them waiting for as long as they like: those of other machines (NFS, SMB and their
// kind) and those that a program serves, of this machine (FUSE) or of the one that it is a guest of (9p, virtiofs). A local
// disk has an answer or an error in its time.
//
// Known as local are the file systems on disks of this machine (ext4, xfs, btrfs, zfs, vfat and the like), those in memory
// (tmpfs), those of the kernel itself (proc, sysfs and the like), and what lies on top of others (overlay, with
// fuse-overlayfs). Any other counts as one that may hang, also one that nobody has heard of; and so does every path when
// the system does not say what is mounted.
//
// Whoever serves connections touches such a disk in another process only: detached_append.h writes there, and
// background_task.h reads.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace trabex {

// Whether there is such a disk at all.
bool AnyDiskMayHang();

// Where the first such disk on the way to the native `path` is mounted, links followed; nothing when there is none. Asks
// the system only, and local disks: never one that may hang. On Windows there is never one.
std::optional<std::string> DiskThatMayHang(const std::string& path);
// The same of each of `paths`, in their order. The system is asked once for all.
std::vector<std::optional<std::string>> DisksThatMayHang(const std::vector<std::string>& paths);

}  // namespace trabex
