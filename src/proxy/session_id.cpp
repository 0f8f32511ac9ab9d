#include "proxy/session_id.h"

#include <charconv>
#include <random>

namespace trabex {

SessionId FirstSessionId() {
  std::random_device source;
  static_assert(sizeof(std::random_device::result_type) >= 4);
  return (static_cast<SessionId>(source()) << 32) ^ source();
}

std::array<char, kSessionIdDigits> SessionIdDigits(SessionId id) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::array<char, kSessionIdDigits> digits{};
  for (auto digit = digits.rbegin(); digit != digits.rend(); ++digit, id >>= 4) *digit = kDigits[id & 15];
  return digits;
}

std::string FormatSessionId(SessionId id) {
  const auto digits = SessionIdDigits(id);
  return {digits.data(), digits.size()};
}

std::optional<SessionId> ParseSessionId(std::string_view digits) {
  SessionId id = 0;
  const char* const end = digits.data() + digits.size();
  if (digits.size() != kSessionIdDigits) return std::nullopt;
  const auto [stop, error] = std::from_chars(digits.data(), end, id, 16);
  if (error != std::errc() || stop != end) return std::nullopt;
  return id;
}

}  // namespace trabex
