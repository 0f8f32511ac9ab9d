// The texts of socket errors, and the errors that socket objects raise to their callers.
#pragma once

#include <string>
#include <string_view>

#include "base/error.h"

namespace trabex {

namespace tls_error {
inline constexpr int kFailed = 40030;             // "TLS failed: " and why
inline constexpr int kTooManyHandshakes = 40031;  // it was the oldest of too many that were not done
}  // namespace tls_error

// The text of a socket error number; "Unknown error." for any other.
std::string_view SocketErrorText(int number);

// 40020 "Invalid operation at current state".
[[noreturn]] void RaiseInvalidState(const char* source);
// 40014, for a value out of its range.
[[noreturn]] void RaiseBadArgument(const char* source);
// 40014, for an address that cannot be had.
[[noreturn]] void RaiseBadAddress(const char* source);
// 40006, for the wrong protocol or state.
[[noreturn]] void RaiseWrongProtocolOrState(const char* source);
// The number of a failed socket call or look-up with its text.
[[noreturn]] void RaiseSocketError(int number, const char* source);

// Raises `error` unless it is 0.
inline void Check(int error, const char* source) {
  if (error != 0) RaiseSocketError(error, source);
}

}  // namespace trabex
