#include "base/log.h"

#include <string>

namespace trabex {

void Log::LogError(int number, std::string_view description, std::string_view source) {
  std::string line = "Error " + std::to_string(number) + " in ";
  line.append(source).append(". ").append(description);
  LogLine(line);
}

}  // namespace trabex
