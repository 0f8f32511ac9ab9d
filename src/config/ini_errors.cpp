#include "config/ini_errors.h"

#include <string>

#include "base/error.h"
#include "base/text.h"

namespace trabex::mCommon {

void ReportConfigError(const IniErrors& errors, std::string_view section, std::string_view key, int number,
                       std::string_view description, std::string_view consequence, std::string_view where) {
  if (errors.observer != nullptr) {
    errors.observer->BadValue(section, key, where, number, description);
    if (!errors.ignore) throw Error(number, "mCommon.ReportConfigError", std::string(description));
    return;
  }
  std::string line = "Error parsing initialization file. Section: \"";
  line.append(section).append("\", Key name: \"").append(key).append("\", Error number: ");
  line.append(std::to_string(number)).append(", Description: ").append(description);
  errors.log.LogProblem(line, errors.ignore ? consequence : std::string_view());
  if (!errors.ignore) throw Error(number, "mCommon.ReportConfigError", std::string(description));
}

void ReportListFileError(const IniErrors& errors, std::string_view section, std::string_view key,
                         std::string_view path, std::size_t line, int number, std::string_view description,
                         std::string_view where) {
  if (errors.observer != nullptr) {
    errors.observer->BadValue(section, key, where, number, description);
  } else {
    std::string text = "Error reading list file ";
    text.append(Quoted(path)).append(", line ").append(std::to_string(line)).append(". Error number: ");
    text.append(std::to_string(number)).append(", Description: ").append(description);
    errors.log.LogProblem(text, errors.ignore ? kEntryLeftOut : std::string_view());
  }
  if (!errors.ignore) throw Error(number, "mCommon.ReportListFileError", std::string(description));
}

std::string DefaultTaken(std::string_view default_text) {
  if (default_text.empty()) return "The default is taken, which is empty.";
  return "The default is taken: " + std::string(default_text);
}

}  // namespace trabex::mCommon
