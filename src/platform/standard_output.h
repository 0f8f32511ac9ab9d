// Standard output as a place for lines that a service writes while it runs, read by a journal, a container's
// supervisor, or nobody.
#pragma once

#include <cstddef>
#include <string_view>

namespace trabex {

// Writes as much from the front of `text` as standard output takes at once, and returns how much that is. Never
// waits for a reader. Nothing when there is no reader any more, or standard output cannot be written to.
std::size_t WriteStandardOutput(std::string_view text);

}  // namespace trabex
