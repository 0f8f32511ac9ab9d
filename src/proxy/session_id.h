// What names a session to people and programs: 16 hexadecimal digits, the same in every place that tells of
// it.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace trabex {

using SessionId = std::uint64_t;

inline constexpr std::size_t kSessionIdDigits = 16;

// The first id of a run of the program; each further session takes the next number. Random, so that two runs
// do not name two sessions alike, whatever the clock did between them.
SessionId FirstSessionId();

// The 16 digits, in lower case; no allocation.
std::array<char, kSessionIdDigits> SessionIdDigits(SessionId id);
std::string FormatSessionId(SessionId id);

// The id that `digits` stand for, in either case of letters; nothing unless there are 16 of them.
std::optional<SessionId> ParseSessionId(std::string_view digits);

}  // namespace trabex
