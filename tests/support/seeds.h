// How often tests repeat themselves with random data.
#pragma once

#include <algorithm>
#include <cstdlib>

namespace trabex {

// `usual` seeds, or as many times fewer as the environment says, where a run takes long (TRABEX_TEST_SEED_DIVISOR).
inline unsigned SeedCount(unsigned usual) {
  const char* const divisor = std::getenv("TRABEX_TEST_SEED_DIVISOR");
  const long by = divisor == nullptr ? 1 : std::strtol(divisor, nullptr, 10);
  return std::max(1U, usual / static_cast<unsigned>(std::max(1L, by)));
}

}  // namespace trabex
