// Numbers as people write them in settings and on the command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace trabex {

// A whole number: optional blanks around, optional sign, decimal digits, optional fraction, which is rounded
// half to even ("2.5" is 2, "3.5" is 4; ".5" has no digits before the point and does not convert). Nothing
// else converts, and no value outside 32 bits.
std::optional<std::int32_t> ParseInteger(std::string_view text);

// A number with four decimal places, held as ten-thousandths in 64 bits, so that one and a half megabytes is
// exact.
using FixedPoint = std::int64_t;
inline constexpr FixedPoint kFixedPointOne = 10000;

// A fixed-point number written like a whole number of ParseInteger, the fraction kept to four places (rounded
// half to even at the fifth), times `multiplier` (1 or more). Nothing when the text does not convert or the
// product leaves 64 bits.
std::optional<FixedPoint> ParseFixedPoint(std::string_view text, std::int64_t multiplier);

// The whole number nearest to `value` (half to even), in decimal: the format "0".
std::string FormatWhole(FixedPoint value);

}  // namespace trabex
