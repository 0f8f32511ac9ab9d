#include "config/ini_errors.h"

#include <string>

#include "base/error.h"

namespace trabex::mCommon {

void ReportConfigError(const IniErrors& errors, std::string_view section, std::string_view key, int number,
                       std::string_view description) {
  std::string line = "Error parsing initialization file. Section: \"";
  line.append(section).append("\", Key name: \"").append(key).append("\", Error number: ");
  line.append(std::to_string(number)).append(", Description: ").append(description);
  errors.log.LogLine(line);
  if (!errors.ignore) throw Error(number, "mCommon.ReportConfigError", std::string(description));
}

}  // namespace trabex::mCommon
