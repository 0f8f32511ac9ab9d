// A message for the operator on standard error.
#pragma once

#include <string_view>

namespace trabex {

// Writes `text` to standard error as far as that takes it at once. Never waits: a terminal that does not read
// must not hold up the mail.
void ShowMessage(std::string_view text);

}  // namespace trabex
