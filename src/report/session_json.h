// An open session as one JSON object on one line, for programs.
#pragma once

#include <string>

#include "report/session_snapshot.h"

namespace trabex {

// Appends the line. What is not known, or not there, is left out. Its texts may go to a terminal as well: characters
// that are not visible (base/visible_text.h) are escaped, and what is no UTF-8 is told as JsonLine::Text does.
void AppendSessionJson(const SessionSnapshot& session, std::string& out);

}  // namespace trabex
