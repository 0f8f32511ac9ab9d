// What the process does before anything else.
#pragma once

#include <string>
#include <vector>

namespace trabex {

// The tokens of the command line without the program's own name, in UTF-8. On Linux these are the arguments as the
// shell has split them. Windows hands over one text, which is split at blanks outside double quotes (321 when they
// are not balanced); a token keeps its quotes. `argv` is in another encoding there and is not looked at.
std::vector<std::string> CommandLineTokens(int argc, char* const* argv);

// Whether the quotes that people write around a token are still there in CommandLineTokens.
extern const bool kTokensKeepQuotes;

// Opens the standard streams that are closed, on nothing: otherwise files and sockets would take their place,
// and what is meant for standard error would reach a client. From now on what the system asks of the program
// waits until WatchSystemRequests listens (or the process has ended), so that it never ends the process on
// the spot. What would end or stop the process though it means nothing here is ignored (on Linux SIGUSR2,
// SIGALRM, SIGVTALRM, SIGIO, SIGPIPE and the signals by which a terminal stops a process).
void PrepareStreamsAndRequests();

// What the system asks ends the process at once again: for a process that only waits for another one.
void LetRequestsEndProcess();

}  // namespace trabex
