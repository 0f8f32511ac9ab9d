// Disks that may keep whoever touches them waiting for as long as they like: those of other machines (NFS, SMB and their
// kind) and those that a program of this machine serves (FUSE). A local disk has an answer or an error in its time.
//
// Whoever serves connections touches such a disk in another process only: detached_append.h writes there, and
// background_task.h reads.
#pragma once

#include <optional>
#include <string>

namespace trabex {

// Whether there is such a disk at all.
bool AnyDiskMayHang();

// Where the first such disk on the way to the native `path` is mounted, links followed; nothing when there is none. Asks
// the system only, and local disks: never one that may hang. What lies on top of other file systems (overlay) counts as
// local. On Windows there is never one.
std::optional<std::string> DiskThatMayHang(const std::string& path);

}  // namespace trabex
