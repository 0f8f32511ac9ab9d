// The line of totals below the table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "report/totals.h"

namespace trabex {

// Which rows of the table are visible. Nothing: `first` and `last` are 0.
struct ShownRows {
  std::size_t first = 0;  // from 1 on
  std::size_t last = 0;
  std::size_t all = 0;  // rows of the table
};

// In 4 characters at most: "9999", "12k", "1.2M", "999G".
std::string ShortNumber(std::uint64_t number);

// The longest of its forms that fits. The bytes are those of the clients' connections.
std::string TotalsLine(const Totals& totals, const ShownRows& shown, std::size_t columns);

}  // namespace trabex
