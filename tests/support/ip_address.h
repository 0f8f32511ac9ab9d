// Addresses in tests.
#pragma once

#include <ostream>
#include <string_view>

#include "base/ip_address.h"

namespace trabex {

// The address that `text` is; a text that is none ends the test.
inline IPAddress IP(std::string_view text) {
  return ParseIPAddress(text).value();
}

inline void PrintTo(const IPAddress& address, std::ostream* out) {
  *out << (address.IsNone() ? "no address" : FormatIPAddress(address));
}

}  // namespace trabex
