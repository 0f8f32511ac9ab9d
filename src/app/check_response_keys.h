// The keys of section ResponseChanges, held against the replies that there are.
#pragma once

#include <string>
#include <string_view>

#include "config/configuration.h"

namespace trabex {

// Whether some reply is changed by rules under `key`, with whatever settings. Verbs are those that the program
// knows, ETRN, and any that begins with X.
bool IsResponseKey(std::string_view key);

// " (did you mean "X"?)" for the nearest such key, or "".
std::string ResponseKeyHint(std::string_view key);

// Why no reply can be changed by rules under `key`, a response key, with these settings: a sentence; "" when
// one may be.
std::string WhyNeverApplied(std::string_view key, const Configuration& configuration);

// The first macro in a rule's replacement that is none, as it is written ("{%x%}"), or "".
std::string UnknownMacro(std::string_view replacement);
// The hint for it.
std::string MacroHint(std::string_view macro);

}  // namespace trabex
