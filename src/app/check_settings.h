// The whole check of the settings, as the switch makes it and a reload on request: check_configuration.h, the
// certificates, and the server's name.
#pragma once

#include <functional>

#include "app/check_configuration.h"
#include "config/configuration.h"

namespace trabex {

struct Program;

enum class AskNames { kNo, kYes };

// `file` is the initialization file as people wrote it; for `initial` see CheckConfiguration. `done` gets what
// was found: inside this call, or from the loop of `program` when the server's name has to be asked for, within
// 5 seconds. `program`, of which nothing is changed, lives until then.
void CheckSettings(Program& program, const std::string& file, Configuration initial, AskNames ask_names,
                   std::function<void(CheckedConfiguration checked)> done);

}  // namespace trabex
