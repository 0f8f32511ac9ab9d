// How often tests repeat themselves with random data, and with much of one kind.
#pragma once

#include <algorithm>
#include <cstdlib>

namespace trabex {

// How many times less often than usual, where a run takes long: what the environment says (TRABEX_TEST_SEED_DIVISOR), or 1.
inline unsigned SeedDivisor() {
  const char* const divisor = std::getenv("TRABEX_TEST_SEED_DIVISOR");
  const long by = divisor == nullptr ? 1 : std::strtol(divisor, nullptr, 10);
  return static_cast<unsigned>(std::max(1L, by));
}

// `usual` seeds, or as many times fewer.
inline unsigned SeedCount(unsigned usual) {
  return std::max(1U, usual / SeedDivisor());
}

}  // namespace trabex
