// What happens with errors in the initialization file.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "base/log.h"
#include "config/load_observer.h"

namespace trabex {

// Every error is written to `log`. Then, with `ignore` (the setting IgnoreIniErrors), the reader goes on with
// its default or without the bad entry; otherwise the load ends.
struct IniErrors {
  Log& log;
  bool ignore = false;
  // Is told of the errors instead of the log; nullptr: there is none.
  LoadObserver* observer = nullptr;
};

namespace mCommon {

// Writes "Error parsing initialization file. Section: ..." and, unless errors are ignored, raises `number`
// and `description` (source "mCommon.ReportConfigError"). `consequence` says what counts instead, for whoever
// runs the program; `where` is what LoadObserver::BadValue takes.
void ReportConfigError(const IniErrors& errors, std::string_view section, std::string_view key, int number,
                       std::string_view description, std::string_view consequence,
                       std::string_view where = {});

// The same for an entry of a list file: writes "Error reading list file "<path>", line <line>. ...".
void ReportListFileError(const IniErrors& errors, std::string_view section, std::string_view key,
                         std::string_view path, std::size_t line, int number, std::string_view description,
                         std::string_view where);

// What the one of a bad value and of a bad entry is.
std::string DefaultTaken(std::string_view default_text);
inline constexpr std::string_view kEntryLeftOut = "The entry is left out.";

}  // namespace mCommon
}  // namespace trabex
