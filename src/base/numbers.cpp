#include "base/numbers.h"

#include <limits>

#include "base/text.h"

namespace trabex {

namespace {

__extension__ using Wide = __int128;

// The parts of a number as written. Leading zeros of `whole` are dropped.
struct WrittenNumber {
  bool negative = false;
  std::string_view whole;
  std::string_view fraction;
};

std::string_view TakeDigits(std::string_view& text) {
  std::size_t count = 0;
  while (count < text.size() && IsDigit(text[count])) ++count;
  const std::string_view digits = text.substr(0, count);
  text.remove_prefix(count);
  return digits;
}

std::optional<WrittenNumber> ReadNumber(std::string_view text) {
  text = Trim(text);
  WrittenNumber number;
  if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
    number.negative = text.front() == '-';
    text.remove_prefix(1);
  }
  number.whole = TakeDigits(text);
  if (number.whole.empty()) return std::nullopt;
  if (!text.empty() && text.front() == '.') {
    text.remove_prefix(1);
    number.fraction = TakeDigits(text);
  }
  if (!text.empty()) return std::nullopt;
  while (number.whole.size() > 1 && number.whole.front() == '0') number.whole.remove_prefix(1);
  return number;
}

// The digits as a number; nothing beyond 20 of them, which is more than any caller's range.
std::optional<Wide> Value(std::string_view digits) {
  if (digits.size() > 20) return std::nullopt;
  Wide value = 0;
  for (char digit : digits) value = value * 10 + (digit - '0');
  return value;
}

// `kept` (the last digit kept included) rounded half to even by the digits that follow it.
Wide RoundHalfEven(Wide kept, std::string_view dropped) {
  if (dropped.empty() || dropped.front() < '5') return kept;
  const bool above_half =
      dropped.front() > '5' || dropped.find_first_not_of('0', 1) != std::string_view::npos;
  return above_half || kept % 2 != 0 ? kept + 1 : kept;
}

}  // namespace

std::optional<std::int32_t> ParseInteger(std::string_view text) {
  const auto number = ReadNumber(text);
  if (!number) return std::nullopt;
  auto value = Value(number->whole);
  if (!value) return std::nullopt;
  value = RoundHalfEven(*value, number->fraction);
  if (number->negative) value = -*value;
  using Limits = std::numeric_limits<std::int32_t>;
  if (*value < Limits::min() || *value > Limits::max()) return std::nullopt;
  return static_cast<std::int32_t>(*value);
}

std::optional<FixedPoint> ParseFixedPoint(std::string_view text, std::int64_t multiplier) {
  const auto number = ReadNumber(text);
  if (!number) return std::nullopt;
  auto value = Value(number->whole);
  if (!value) return std::nullopt;
  constexpr std::size_t kPlaces = 4;
  for (std::size_t place = 0; place < kPlaces; ++place) {
    value = *value * 10 + (place < number->fraction.size() ? number->fraction[place] - '0' : 0);
  }
  if (number->fraction.size() > kPlaces) value = RoundHalfEven(*value, number->fraction.substr(kPlaces));
  using Limits = std::numeric_limits<FixedPoint>;
  // Bounded before the product, so that the product stays within the wide type. The least number is one
  // further from zero than the greatest.
  if (*value > Wide{Limits::max()} + 1) return std::nullopt;
  value = *value * multiplier;
  if (number->negative) value = -*value;
  if (*value < Limits::min() || *value > Limits::max()) return std::nullopt;
  return static_cast<FixedPoint>(*value);
}

std::string FormatWhole(FixedPoint value) {
  const bool negative = value < 0;
  Wide magnitude = negative ? -static_cast<Wide>(value) : static_cast<Wide>(value);
  const Wide rest = magnitude % kFixedPointOne;
  magnitude /= kFixedPointOne;
  const Wide half = kFixedPointOne / 2;
  if (rest > half || (rest == half && magnitude % 2 != 0)) ++magnitude;
  return (negative && magnitude != 0 ? "-" : "") + std::to_string(static_cast<std::int64_t>(magnitude));
}

}  // namespace trabex
