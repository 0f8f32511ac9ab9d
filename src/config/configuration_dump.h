// The configuration in force, written in the syntax of the initialization file, so that the operator sees the
// values after defaults and corrections, and can load them again. Settings that came later are shown only
// when they differ from their default.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string_view>

#include "base/log.h"
#include "config/configuration.h"

namespace trabex {

// A dump that is written a part at a time, so that long lists hold nobody up.
class ConfigurationDump {
 public:
  // `configuration` outlives the object, and does not change meanwhile.
  ConfigurationDump(const Configuration& configuration, std::string_view ini_path);
  ~ConfigurationDump();
  ConfigurationDump(const ConfigurationDump&) = delete;
  ConfigurationDump& operator=(const ConfigurationDump&) = delete;

  // Gives the next lines, without their ends, to `write_line` (a view lives for the call): those of about `entries`
  // entries of lists. Whether more follow. Raises what `write_line` raises.
  bool WriteSome(std::size_t entries, const std::function<void(std::string_view line)>& write_line);

 private:
  class Parts;
  std::unique_ptr<Parts> parts_;
};

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
