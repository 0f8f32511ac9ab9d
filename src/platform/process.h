// What the process does before anything else.
#pragma once

namespace trabex {

// Opens the standard streams that are closed, on nothing: otherwise files and sockets would take their place,
// and what is meant for standard error would reach a client. From now on what the system asks of the program
// waits until WatchSystemRequests listens (or the process has ended), so that it never ends the process on
// the spot. What would end or stop the process though it means nothing here is ignored (on Linux SIGUSR2,
// SIGALRM, SIGVTALRM, SIGIO, SIGPIPE and the signals by which a terminal stops a process).
void PrepareStreamsAndRequests();

// What the system asks ends the process at once again: for a process that only waits for another one.
void LetRequestsEndProcess();

}  // namespace trabex
