// Messages and refusals in each of the last 60 minutes, as bars.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "console/screen.h"
#include "view/view_source.h"

namespace trabex {

// How many lines the graph has on a screen of this size; 0: there is none, which takes 100 columns or 30 rows.
std::size_t GraphLines(std::size_t columns, std::size_t rows);

// The bars of one line of `lines`, 0 the highest: a character for each of the counts. The highest bar has the
// height of the largest count; what is not 0 can be seen. `plain`: ASCII only.
std::string Bars(const std::vector<std::uint64_t>& counts, std::size_t line, std::size_t lines, bool plain);

// As many lines as GraphLines says.
std::vector<ScreenLine> MinuteGraph(const MinuteCounts& minutes, std::size_t columns, std::size_t rows,
                                    bool plain);

}  // namespace trabex
