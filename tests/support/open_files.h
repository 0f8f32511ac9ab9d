// Which files this process has open.
#pragma once

#include <cstddef>
#include <string>

namespace trabex {

// How many files directly in `folder` this process has open. Its files are those of the test alone.
std::size_t OpenFilesIn(const std::string& folder);

}  // namespace trabex
