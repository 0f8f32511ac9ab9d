#include "app/finding.h"

#include <algorithm>

#include "app/printable.h"

namespace trabex {

std::string FormatFinding(const Finding& finding) {
  std::string line = finding.file;
  if (finding.line > 0) line += ":" + std::to_string(finding.line);
  line += finding.severity == Finding::Severity::kError ? ": error: " : ": warning: ";
  if (!finding.section.empty()) {
    line += "[" + finding.section + "]";
    if (!finding.key.empty()) line += " " + finding.key;
    line += ": ";
  }
  return Printable(line + finding.text);
}

std::size_t CountErrors(const std::vector<Finding>& findings) {
  return static_cast<std::size_t>(std::count_if(findings.begin(), findings.end(), [](const Finding& finding) {
    return finding.severity == Finding::Severity::kError;
  }));
}

std::string FormatFindings(const std::vector<Finding>& findings) {
  if (findings.empty()) return "OK\n";
  std::string text;
  for (const Finding& finding : findings) text += FormatFinding(finding) + "\n";
  const std::size_t errors = CountErrors(findings);
  return text + std::to_string(errors) + " errors, " + std::to_string(findings.size() - errors) +
         " warnings\n";
}

}  // namespace trabex
