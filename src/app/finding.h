// What a check of the settings finds, and how it is printed.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace trabex {

struct Finding {
  enum class Severity {
    kError,    // the settings are not what was meant, or the program would not run with them
    kWarning,  // it would run, but perhaps not as it was meant
  };
  std::string file;      // as it was given
  std::size_t line = 0;  // 0: the finding has none
  Severity severity = Severity::kError;
  std::string section = {};  // may be empty
  std::string key = {};      // likewise
  std::string text = {};     // any bytes
};

// "FILE:LINE: error: [Section] Key: TEXT", or "warning:"; what is empty is left out. Visible characters only.
std::string FormatFinding(const Finding& finding);
std::size_t CountErrors(const std::vector<Finding>& findings);
// A line for each, and last "OK" or "N errors, M warnings".
std::string FormatFindings(const std::vector<Finding>& findings);

}  // namespace trabex
