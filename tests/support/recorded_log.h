// A log that keeps its lines for the test.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "base/log.h"

namespace trabex {

class RecordedLog final : public Log {
 public:
  void LogLine(std::string_view message) override { lines_.emplace_back(message); }

  const std::vector<std::string>& Lines() const { return lines_; }
  // The lines so far, which are then forgotten.
  std::vector<std::string> Take() { return std::exchange(lines_, {}); }

 private:
  std::vector<std::string> lines_;
};

}  // namespace trabex
