// What happens with errors in the initialization file.
#pragma once

#include <string_view>

#include "base/log.h"

namespace trabex {

// Every error is written to `log`. Then, with `ignore` (the setting IgnoreIniErrors), the reader goes on with
// its default or without the bad entry; otherwise the load ends.
struct IniErrors {
  Log& log;
  bool ignore = false;
};

namespace mCommon {

// Writes "Error parsing initialization file. Section: ..." and, unless errors are ignored, raises `number`
// and `description` (source "mCommon.ReportConfigError").
void ReportConfigError(const IniErrors& errors, std::string_view section, std::string_view key, int number,
                       std::string_view description);

}  // namespace mCommon
}  // namespace trabex
