// What the process does before anything else.
#pragma once

namespace trabex {

// Opens the standard streams that are closed, on nothing: otherwise files and sockets would get their
// numbers, and what is meant for standard error would reach a client. From now on a signal that asks for
// something waits until WatchSystemRequests listens (or the process has ended), so that it never ends the
// process on the spot; SIGUSR2, SIGALRM, SIGVTALRM, SIGIO and SIGPIPE, which mean nothing here, are ignored,
// and so are those by which a terminal stops a process.
void PrepareProcess();

}  // namespace trabex
