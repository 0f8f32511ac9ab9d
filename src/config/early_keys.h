// The settings that must be known before anything else, Setting::is_early of the table. They are taken
// straight from the file, by rules of their own: bad lines are passed over, the first occurrence of a key
// counts, and a value has at most 255 characters and may have single or double quotes around it.
#pragma once

#include <string>
#include <string_view>

#include "base/log.h"
#include "config/configuration.h"
#include "config/load_observer.h"

namespace trabex {

struct EarlyKeyInputs {
  std::string ini_path;
  std::string program_directory;
  bool log_path_given = false;  // "/L": Configuration::LogPath is set already
  bool port_given = false;      // "/P": Configuration::BindPort is set already
  // Is told of the errors, which then are all ignored; nullptr: there is none.
  LoadObserver* observer = nullptr;
};

enum class EarlyKeysResult {
  kRead,
  kFailed,  // a bad value, and errors are not ignored; the keys before it have their new values
};

// Reads the early keys from the file into `configuration`; one that is missing counts as empty. A folder
// given with "/L" forces Log to 1 whatever the file says; LogPath is read only while none is set. Errors are
// written to `log`; those of IgnoreIniErrors itself are never ignored. Raises no Error.
EarlyKeysResult ReadEarlyKeys(const EarlyKeyInputs& inputs, Configuration& configuration, Log& log);

// The same from the file's text.
EarlyKeysResult ReadEarlyKeysAgain(std::string_view text, const EarlyKeyInputs& inputs,
                                   Configuration& configuration, Log& log);

// The same, but raises what ReportConfigError raises.
void ReadEarlyKeysFromText(std::string_view text, const EarlyKeyInputs& inputs, Configuration& configuration,
                           Log& log);

}  // namespace trabex
