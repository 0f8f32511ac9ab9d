// A word to the person at the screen while the mail goes on.
#pragma once

#include <string_view>

namespace trabex {

// Writes `text` to standard error as far as that takes it at once; never waits.
void ShowMessage(std::string_view text);

}  // namespace trabex
