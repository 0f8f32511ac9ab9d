// The system calls that this process may make.
#pragma once

namespace trabex {

// Whether there is a filter for this processor, and a kernel that takes it.
bool HasSystemCallFilter();

// From now on a call that the program has no use for fails with EPERM, as if the system had refused it, so that a
// library that only tries something goes on. A call that nothing here ever makes, but an intruder would (to run another
// program, to look into another process, to load code into the kernel), ends the process at once. False when the kernel
// refuses. The process has "no new privileges" already.
bool FilterSystemCalls();

}  // namespace trabex
