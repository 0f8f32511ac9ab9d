// What the JSON log tells of the program itself. Each does nothing when there is no such log, or it does not
// take the event.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "report/json_log.h"

namespace trabex {

// `errors` are the texts of what is wrong in the initialization file.
void WriteStart(JsonLog& json, std::string_view version, const std::vector<std::string>& errors);
void WriteStop(JsonLog& json, std::string_view version);
void WriteReload(JsonLog& json, bool succeeded, const std::vector<std::string>& errors);
void WriteError(JsonLog& json, int number, std::string_view text);

}  // namespace trabex
