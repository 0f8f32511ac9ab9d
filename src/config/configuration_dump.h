// The configuration in force, written in the syntax of the initialization file, so that the operator sees the
// values after defaults and corrections, and can load them again. Settings that came later are shown only
// when they differ from their default.
#pragma once

#include <functional>
#include <string_view>

#include "base/log.h"
#include "config/configuration.h"

namespace trabex {

// Gives the lines of the dump, without their ends, to `write_line`, one by one (a view lives for the call).
// Raises what that raises.
void DumpConfiguration(const Configuration& configuration, std::string_view ini_path,
                       const std::function<void(std::string_view line)>& write_line);

namespace mCommon {

// The same for the log: nothing when `Log` is 0. An Error that `write_line` raises ends the dump and is written to `log` with the
// source "mCommon.LogConfiguration".
void LogConfiguration(const Configuration& configuration, std::string_view ini_path, Log& log,
                      const std::function<void(std::string_view line)>& write_line);

}  // namespace mCommon

}  // namespace trabex
