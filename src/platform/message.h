// A message for the operator on standard error.
#pragma once

#include <string_view>

namespace trabex {

// Writes `text` to standard error as far as that takes it at once. Never waits: a terminal that does not read
// must not hold up the mail.
void ShowMessage(std::string_view text);

// Whether standard error is a terminal, on which a message may stand in the middle of what else is shown.
bool MessagesGoToTerminal();

}  // namespace trabex
