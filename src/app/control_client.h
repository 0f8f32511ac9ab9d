// A request to a running instance, from a process that makes nothing else.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace trabex {

// Asks the instance that listens on `port` and writes its answer as it comes: text to `out`, what went wrong to
// `err`. Returns the exit status: that of the answer, or why there is none (exit_status.h). Waits for a minute at
// most without getting anything.
int AskInstance(std::int32_t port, const std::vector<std::string>& request, std::ostream& out,
                std::ostream& err);

// Shows the view of the instance that listens on `port` on the terminal, until the user leaves it or the instance
// ends it. Returns the exit status; when there is none to be shown, `err` says why.
int ViewInstance(std::int32_t port, std::ostream& out, std::ostream& err);

// Asks the instance that listens on `port` to end; that there is none is no failure.
int AskForExit(std::int32_t port, std::ostream& err);

}  // namespace trabex
