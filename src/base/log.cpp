#include "base/log.h"

#include <string>

namespace trabex {

namespace {

std::string ErrorLine(int number, std::string_view description, std::string_view source) {
  std::string line = "Error " + std::to_string(number) + " in ";
  return line.append(source).append(". ").append(description);
}

}  // namespace

void Log::LogError(int number, std::string_view description, std::string_view source) {
  LogLine(ErrorLine(number, description, source));
}

void Log::LogProblem(const Error& error) {
  LogProblem(ErrorLine(error.Number(), error.Description(), error.Source()));
}

}  // namespace trabex
