#include "proxy/dialogue/command_parameters.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <system_error>

#include "base/text.h"

namespace trabex {

namespace {

bool IsKeywordByte(char byte) {
  return IsDigit(byte) || (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') || byte == '-';
}

}  // namespace

std::string_view FirstParameter(std::string_view rest) {
  return FirstWord(Trim(rest));
}

std::optional<std::uint64_t> OctetCount(std::string_view word) {
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
  if (word.empty() || error != std::errc() || end != word.data() + word.size()) return std::nullopt;
  if (value > kMaxOctets) return std::nullopt;
  return value;
}

bool IsLastChunk(std::string_view rest) {
  constexpr std::string_view kLast = " LAST";
  const std::size_t at = FindNoCase(rest, kLast);
  if (at == std::string_view::npos) return false;
  const std::size_t behind = at + kLast.size();
  return behind == rest.size() || rest[behind] == ' ';
}

std::string WithOctetCount(std::string_view rest, std::uint64_t octets) {
  const std::string_view parameters = rest.substr(1);
  return " " + std::to_string(octets) + std::string(parameters.substr(FirstWord(parameters).size()));
}

std::string ChunkParameters(std::string_view rest, std::uint64_t octets, bool is_last) {
  const std::string_view parameters = rest.substr(1);
  const std::string_view words = Trim(parameters.substr(FirstWord(parameters).size()));
  if (words.empty() || (is_last && FirstWord(words).size() == words.size()))
    return WithOctetCount(rest, octets);
  return " " + std::to_string(octets) + (is_last ? " LAST" : "");
}

bool AreKeywordParameters(std::string_view parameters) {
  while (!(parameters = Trim(parameters)).empty()) {
    const std::string_view word = FirstWord(parameters);
    const std::string_view keyword = word.substr(0, word.find('='));
    if (keyword.empty() || keyword.front() == '-') return false;
    if (!std::all_of(keyword.begin(), keyword.end(), IsKeywordByte)) return false;
    parameters.remove_prefix(word.size());
  }
  return true;
}

bool HasKeyword(std::string_view parameters, std::string_view keyword) {
  const auto words = Split(parameters, ' ');
  return std::any_of(words.begin(), words.end(),
                     [keyword](std::string_view word) { return EqualNoCase(word, keyword); });
}

std::optional<FixedPoint> DeclaredSize(std::string_view parameters) {
  constexpr std::string_view kSize = " SIZE=";
  std::optional<FixedPoint> greatest;
  for (std::size_t at = FindNoCase(parameters, kSize); at != std::string_view::npos;
       at = FindNoCase(parameters, kSize, at + 1)) {
    const std::string_view digits = FirstWord(parameters.substr(at + kSize.size()));
    if (digits.empty() || !std::all_of(digits.begin(), digits.end(), IsDigit)) continue;
    constexpr FixedPoint kMost = std::numeric_limits<FixedPoint>::max();
    const FixedPoint size = ParseFixedPoint(digits, 1).value_or(kMost - kMost % kFixedPointOne);
    greatest = std::max(greatest.value_or(0), size);
  }
  return greatest;
}

}  // namespace trabex
