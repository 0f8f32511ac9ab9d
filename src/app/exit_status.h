// How the program ends, as its caller sees it.
#pragma once

#include <string_view>

namespace trabex {

namespace exit_status {
inline constexpr int kDone = 0;
inline constexpr int kFailed = 1;          // standard error says why
inline constexpr int kBadCommandLine = 2;  // or bad arguments of a request
inline constexpr int kNoInstance = 3;
inline constexpr int kOtherUser = 4;  // the instance belongs to somebody else
}  // namespace exit_status

// What standard error says when the answer did not arrive, on a full disk perhaps.
inline constexpr std::string_view kOutputNotWritten = "Standard output could not be written.";

}  // namespace trabex
